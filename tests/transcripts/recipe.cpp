#include "tests/transcripts/recipe.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/support/pair_walk.h"
#include "tests/transcripts/places.h"
#include "tests/transcripts/shape.h"
#include "tests/transcripts/words.h"

namespace testing_support {
namespace {

namespace fs = std::filesystem;

// ---- Runs.

FileLock take_lock(Words& words) {
  FileLock lock;
  lock.file = words.take();
  lock.for_writing = words.take() == "write";
  lock.start = words.number();
  lock.length = words.number();
  return lock;
}

void add_to_run(Run& run, Words& words) {
  const std::string what = words.take();
  if (what == "answers") {
    for (const std::string& answer : words.rest()) run.answers += answer + '\n';
  } else if (what == "environment") {
    run.environment.push_back(words.take());
  } else if (what == "fails") {
    std::string failure;
    for (const std::string& word : words.rest()) failure += word + ' ';
    run.failures.push_back(failure);
  } else if (what == "locked") {
    run.locks.push_back(take_lock(words));
  } else if (what == "closed") {
    run.closed.push_back(static_cast<int>(words.number()));
  } else if (what == "user") {
    run.user = static_cast<int>(words.number());
  } else if (what == "file-limit") {
    run.file_limit = words.number();
  } else if (what == "terminal") {
    run.terminal = true;
  } else {
    words.fail("what is " + what + "?");
  }
}

// ---- Making.

class Maker {
 public:
  explicit Maker(const std::string& folder) : folder_(folder) {}

  void obey(const std::string& line) {
    Words words(line);
    const std::string what = words.take();
    if (!make(what, words) && !damage(what, words)) {
      save();
      if (!change_file(what, words)) words.fail("what is " + what + "?");
    }
    if (!words.empty()) words.fail("too many words");
  }
  std::vector<std::string> end() {
    save();
    return names_;
  }

 private:
  bool make(const std::string& what, Words& words) {
    if (what == "pair") {
      save();
      const std::string name = words.take("called") ? words.take() : "pair";
      built_ = std::make_unique<BuiltPair>(build_pair(take_shape(words), folder_ + '/' + name));
      editor_ = std::make_unique<PairEditor>(*built_);
      names_.push_back(name);
      return true;
    }
    if (what != "later" && what != "earlier") return false;
    // One of the files is as it was, or will be, when the pair was otherwise.
    const bool is_index = words.take() == "index";
    const std::string other = folder_ + "/other-time";
    build_pair(take_shape(words, built().spec), other);
    (is_index ? editor().index : editor().data) = read_file(other + (is_index ? ".idx" : ".dat"));
    for (const char* suffix : {".idx", ".dat"}) fs::remove(other + suffix);
    return true;
  }

  bool damage(const std::string& what, Words& words) {
    if (what == "set" || what == "add") {
      set(what == "add", words);
    } else if (what == "text") {
      const Field field = take_field(editor(), take_place(editor(), words), words);
      std::fill_n(field.at, field.width, Byte{0});
      const std::string text = words.take();
      std::copy(text.begin(), text.end(), field.at);
    } else if (what == "fill") {
      const std::vector<Place> places = take_places(editor(), words);
      const auto value = static_cast<Byte>(words.number());
      const auto from = words.empty() ? 0 : words.number();
      const auto count = words.empty() ? -1 : words.number();
      for (const Place& place : places) {
        std::fill_n(place.at + from, count < 0 ? place.size - from : count, value);
      }
    } else if (what == "copy" || what == "swap") {
      move(what == "swap", words);
    } else if (what == "cut") {
      Image& file = words.take() == "index" ? editor().index : editor().data;
      const std::int64_t size = words.number();
      file.resize(static_cast<std::size_t>(size < 0 ? std::ssize(file) + size : size));
    } else if (what == "grow") {
      Image& file = words.take() == "index" ? editor().index : editor().data;
      const auto more = static_cast<std::size_t>(words.number());
      file.resize(file.size() + more, static_cast<Byte>(words.number()));
    } else {
      return false;
    }
    return true;
  }

  void set(bool adds, Words& words) {
    const std::vector<Place> places = take_places(editor(), words);
    const Words at_field = words;
    for (const Place& place : places) {
      words = at_field;
      const Field field = take_field(editor(), place, words);
      if (words.take("number-of")) {
        put(field, number_of(editor(), take_place(editor(), words)));
      } else {
        put(field, words.number() + (adds ? get(field) : 0));
      }
    }
  }

  // Two numbers, or two things of one kind.
  void move(bool both, Words& words) {
    const char* const between = both ? "with" : "to";
    const auto take = [&]() -> Field {
      const Place place = take_place(editor(), words);
      if (words.empty() || words.take(between)) return {place.at, place.size};
      const Field field = take_field(editor(), place, words);
      if (!words.empty() && !words.take(between)) words.fail("the other is missing");
      return field;
    };
    const Field one = take();
    const Field other = take();
    const int width = std::min(one.width, other.width);
    if (both) {
      std::swap_ranges(one.at, one.at + width, other.at);
    } else {
      std::copy_n(one.at, width, other.at);
    }
  }

  bool change_file(const std::string& what, Words& words) {
    const std::string name = words.take();
    const std::string path = folder_ + '/' + name;
    if (what == "remove") {
      fs::remove(path);
    } else if (what == "write") {
      std::ofstream(path) << words.take() << '\n';
    } else if (what == "folder") {
      fs::create_directory(path);
    } else if (what == "link") {
      fs::create_hard_link(path, folder_ + '/' + words.take());
    } else if (what == "rename") {
      fs::rename(path, folder_ + '/' + words.take());
    } else if (what == "symlink") {
      fs::create_symlink(name, folder_ + '/' + words.take());
    } else if (what == "mode") {
      demand(::chmod(path.c_str(), static_cast<mode_t>(std::stoul(words.take(), nullptr, 8))));
    } else if (what == "owner") {
      const auto owner = static_cast<uid_t>(words.number());
      demand(::chown(path.c_str(), owner, owner));
    } else {
      return false;
    }
    editor_.reset();  // what it holds is not what the files are any more
    return true;
  }
  static void demand(int result) {
    if (result != 0) throw fs::filesystem_error("", std::error_code(errno, std::system_category()));
  }

  const BuiltPair& built() const {
    if (!built_) throw std::runtime_error("there is no pair yet");
    return *built_;
  }
  PairEditor& editor() {
    if (!editor_) editor_ = std::make_unique<PairEditor>(built());
    return *editor_;
  }
  void save() {
    if (editor_) editor_->save();
  }

  std::string folder_;
  std::vector<std::string> names_;
  std::unique_ptr<BuiltPair> built_;
  std::unique_ptr<PairEditor> editor_;
};

}  // namespace

Recipe::Recipe(const std::string& path) {
  std::ifstream file(path);
  std::getline(file, description_);
  if (description_.empty()) throw std::runtime_error(path + " says nothing");
  first_.words = {"-yq", "pair"};
  second_.words = {"-nq", "pair"};
  Run* run = nullptr;
  for (std::string line; std::getline(file, line);) {
    Words words(line);
    if (words.empty()) continue;
    if (words.take("first")) {
      run = &first_;
      run->words = words.rest();
    } else if (words.take("second")) {
      run = &second_;
      run->words = words.rest();
    } else if (run != nullptr) {
      add_to_run(*run, words);
    } else {
      lines_.push_back(line);
    }
  }
}

bool Recipe::needs_root() const {
  return first_.user != 0 || second_.user != 0 ||
         std::ranges::any_of(lines_, [](const auto& line) { return line.starts_with("owner "); });
}

std::vector<std::string> Recipe::make(const std::string& folder) const {
  Maker maker(folder);
  for (const std::string& line : lines_) maker.obey(line);
  return maker.end();
}

}  // namespace testing_support
