// transcripts: makes the pairs of tests/pairs, runs kestro on each twice, and compares what it
// prints with what stands there.
//
//   transcripts [NAME...]               compares; without names also what can be printed at all
//   transcripts --update [NAME...]      writes what is printed there instead, to be read by you
//   transcripts --into FOLDER [NAME...] writes it to FOLDER/NAME/first and second instead
//   transcripts --make FOLDER [NAME...] only makes the pairs, each in FOLDER/NAME
//
// --kestro PROGRAM in front of these runs another build's program. Exit status 0: all is as it
// should be; 1: it is not; 2: it could not be found out.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <thread>

#include "tests/support/pair_walk.h"
#include "tests/transcripts/texts.h"
#include "tests/transcripts/transcript.h"

namespace {

namespace fs = std::filesystem;
using testing_support::make_transcript;
using testing_support::Recipe;
using testing_support::Transcript;

enum class Action { kCompare, kUpdate, kInto, kMake };

struct Wanted {
  Action action = Action::kCompare;
  std::string program = KESTRO_PROGRAM;
  fs::path into;
  std::vector<std::string> names;
  bool all = false;
};

const fs::path& pairs_folder() {
  static const fs::path folder = KESTRO_PAIRS;
  return folder;
}

Wanted wanted_by(std::vector<std::string> words) {
  Wanted wanted;
  const auto drop = [&] {
    if (words.empty()) throw std::runtime_error("an argument is missing");
    std::string word = words.front();
    words.erase(words.begin());
    return word;
  };
  while (!words.empty() && words.front().starts_with("--")) {
    const std::string option = drop();
    if (option == "--kestro") {
      wanted.program = drop();
    } else if (option == "--update") {
      wanted.action = Action::kUpdate;
      wanted.into = pairs_folder();
    } else if (option == "--into" || option == "--make") {
      wanted.action = option == "--into" ? Action::kInto : Action::kMake;
      wanted.into = drop();
    } else {
      throw std::runtime_error("unknown option " + option);
    }
  }
  wanted.names = words;
  wanted.all = words.empty();
  if (wanted.all) {
    for (const auto& entry : fs::directory_iterator(pairs_folder())) {
      if (entry.is_directory()) wanted.names.push_back(entry.path().filename());
    }
  }
  std::ranges::sort(wanted.names);
  return wanted;
}

std::string text_of(const fs::path& path) {
  if (!fs::exists(path)) return {};
  const testing_support::Image bytes = testing_support::read_file(path);
  return {bytes.begin(), bytes.end()};
}

void write_text(const fs::path& path, const std::string& text) {
  testing_support::write_file(path, {text.begin(), text.end()});
}

// The first line that differs, and three before it.
std::string difference(const std::string& expected, const std::string& printed) {
  std::istringstream left(expected);
  std::istringstream right(printed);
  std::vector<std::string> same;
  std::string a;
  std::string b;
  for (;;) {
    const bool more_left = static_cast<bool>(std::getline(left, a));
    const bool more_right = static_cast<bool>(std::getline(right, b));
    if (more_left && more_right && a == b) {
      same.push_back(a);
      continue;
    }
    std::string told;
    const std::size_t from = same.size() < 3 ? 0 : same.size() - 3;
    for (std::size_t i = from; i < same.size(); ++i) told += "    " + same[i] + '\n';
    told += "  - " + (more_left ? a : "(the end)") + '\n';
    return told + "  + " + (more_right ? b : "(the end)") + '\n';
  }
}

class Work {
 public:
  explicit Work(const Wanted& wanted) : wanted_(wanted) {}

  // Two at a time: mostly one waits for its program.
  bool run() {
    std::thread other([this] { work(); });
    work();
    other.join();
    return good_;
  }

 private:
  void work() {
    for (std::size_t i; (i = next_++) < wanted_.names.size();) {
      const std::string& name = wanted_.names[i];
      std::string told;
      try {
        told = told_of(name);
      } catch (const std::exception& error) {
        told = std::string("  ") + error.what() + '\n';
      }
      if (told.empty()) continue;
      const std::lock_guard guard(lock_);
      good_ = false;
      std::printf("%s:\n%s", name.c_str(), told.c_str());
    }
  }

  // What is wrong.
  std::string told_of(const std::string& name) {
    const fs::path folder = pairs_folder() / name;
    const Recipe recipe(folder / "recipe");
    if (recipe.needs_root() && ::geteuid() != 0) {
      std::printf("%s is left out: only root can make it\n", name.c_str());
      return {};
    }
    if (wanted_.action == Action::kMake) {
      fs::create_directories(wanted_.into / name);
      static_cast<void>(recipe.make(wanted_.into / name));
      return {};
    }
    const Transcript made = make_transcript(recipe, wanted_.program);
    std::string told = made.wrong;
    for (const auto& [run, text] : {std::pair{"first", &made.first}, {"second", &made.second}}) {
      if (wanted_.action != Action::kCompare) {
        fs::create_directories(wanted_.into / name);
        write_text(wanted_.into / name / run, *text);
      } else if (const std::string expected = text_of(folder / run); expected != *text) {
        told += std::string("  the ") + run + " run:\n" + difference(expected, *text);
      }
    }
    return told;
  }

  const Wanted& wanted_;
  std::atomic<std::size_t> next_ = 0;
  std::mutex lock_;
  bool good_ = true;
};

// What the surroundings of this run might change.
void settle_surroundings() {
  ::umask(022);
  for (const int signal : {SIGHUP, SIGINT, SIGPIPE, SIGTERM}) ::signal(signal, SIG_DFL);
  for (const char* name : {"CLIENT_LOCALE", "DB_LOCALE", "SERVER_LOCALE", "LANG", "LC_ALL",
                           "ISAMBUFS", "KESTRO_KEEP", "ISAMSORTMEM"}) {
    ::unsetenv(name);
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    settle_surroundings();
    const Wanted wanted = wanted_by({argv + 1, argv + argc});
    bool good = Work(wanted).run();
    if (wanted.all && wanted.action == Action::kCompare) {
      for (const std::string& told : testing_support::texts_not_shown(pairs_folder())) {
        std::printf("%s\n", told.c_str());
        good = false;
      }
    }
    std::printf("%zu pairs\n", wanted.names.size());
    return good ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "transcripts: %s\n", error.what());
    return 2;
  }
}
