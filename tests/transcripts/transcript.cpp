#include "tests/transcripts/transcript.h"

#include <fcntl.h>
#include <grp.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <map>
#include <set>
#include <utility>

#include "common/holders.h"
#include "isam/calls/version.h"
#include "tests/support/child_process.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

namespace fs = std::filesystem;
using common::FileHold;

Image read_if_there(const std::string& path) {
  return fs::is_regular_file(path) ? read_file(path) : Image{};
}

// Another process that holds locks for as long as this lives.
class Holder {
 public:
  Holder(const std::vector<FileLock>& locks, const std::string& folder) {
    if (locks.empty()) return;
    int ready[2];
    if (::pipe(ready) != 0) throw std::runtime_error("pipe");
    process_ = start_process([&] {
      for (const FileLock& wanted : locks) {
        struct flock lock {};
        lock.l_type = wanted.for_writing ? F_WRLCK : F_RDLCK;
        lock.l_start = wanted.start;
        lock.l_len = wanted.length;
        if (::fcntl(::open((folder + '/' + wanted.file).c_str(), O_RDWR), F_SETLK, &lock) != 0) {
          ::_exit(1);
        }
      }
      if (::write(ready[1], "!", 1) == 1) ::pause();
    });
    ::close(ready[1]);
    char got = 0;
    if (::read(ready[0], &got, 1) != 1) throw std::runtime_error("no lock");
    ::close(ready[0]);
  }
  ~Holder() {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    end_of(process_);
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

 private:
  pid_t process_ = 0;
};

// The ends of a terminal.
class Terminal {
 public:
  explicit Terminal(bool wanted) {
    if (!wanted) return;
    ours_ = FileHold{::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
    if (!ours_ || ::grantpt(ours_.get()) != 0 || ::unlockpt(ours_.get()) != 0) {
      throw std::runtime_error("no terminal");
    }
    theirs_ = FileHold{::open(::ptsname(ours_.get()), O_RDWR | O_NOCTTY | O_CLOEXEC)};
  }
  [[nodiscard]] int theirs() const { return theirs_.get(); }
  // What was shown, with plain ends of lines.
  std::string shown() {
    theirs_ = FileHold{};
    std::string all;
    char piece[4096];
    for (ssize_t got; ours_ && (got = ::read(ours_.get(), piece, sizeof piece)) > 0;) {
      all.append(piece, static_cast<std::size_t>(got));
    }
    std::erase(all, '\r');
    return all;
  }

 private:
  FileHold ours_;
  FileHold theirs_;
};

void replace_all(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != text.npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
}

class Stage {
 public:
  Stage(const Recipe& recipe, const std::string& program)
      : program_(fs::absolute(program)), names_(recipe.make(folder_.path())) {
    // Others than the owner must get in.
    fs::permissions(folder_.path(), fs::perms{0755}, fs::perm_options::add);
    for (const std::string& name : names_) look_at(name, pairs_[name]);
    files_ = files();
  }
  ~Stage() { fs::permissions(folder_.path(), fs::perms::owner_all, fs::perm_options::add); }
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  std::string run(const Run& run) {
    const Holder holder(run.locks, folder_.path());
    Terminal terminal(run.terminal);
    // By way of its descriptor the program can be started by whoever cannot reach its folder.
    const FileHold opened{::open(program_.c_str(), O_RDONLY)};
    RunRequest request{.words = run.words, .folder = folder_.path(), .input = run.answers};
    request.words.insert(
        request.words.begin(),
        run.user == 0 ? program_ : "/proc/self/fd/" + std::to_string(opened.get()));
    request.environment = run.environment;
    std::string failures;
    for (const std::string& failure : run.failures) failures += failure + ';';
    if (!failures.empty()) {
      request.environment.push_back("KESTRO_FAILING_CALLS=" + failures);
      request.environment.emplace_back("LD_PRELOAD=" KESTRO_FAILING_CALLS);
    }
    request.before = [&] { prepare(run, terminal.theirs()); };
    const RunResult result = run_program(request);
    std::string printed = result.out;
    add_section(printed, "standard error", result.err);
    add_section(printed, "terminal", terminal.shown());
    replace_all(printed, folder_.path(), "FOLDER");
    replace_all(printed, std::string(isam::kVersionNumber), "VERSION");
    return printed + "--- " + outcome(run, result) + '\n';
  }
  [[nodiscard]] const std::string& wrong() const { return wrong_; }

 private:
  struct Pair {
    Image index;
    Image data;
    std::map<std::int32_t, Image> records;
    std::vector<std::string> problems;
    bool complete = false;
  };

  // In the new process.
  static void prepare(const Run& run, int terminal) {
    if (terminal >= 0) ::dup2(terminal, STDERR_FILENO);
    for (const int fd : run.closed) ::close(fd);
    if (run.file_limit > 0) {
      const rlimit limit{static_cast<rlim_t>(run.file_limit), RLIM_INFINITY};
      if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) ::_exit(126);
    }
    const auto user = static_cast<uid_t>(run.user);
    if (user == 0) return;
    if (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0) ::_exit(126);
  }

  static void add_section(std::string& to, const std::string& name, const std::string& text) {
    if (text.empty()) return;
    if (!to.empty() && to.back() != '\n') to += '\n';
    to += "--- " + name + '\n' + text;
  }

  [[nodiscard]] std::string base(const std::string& name) const { return folder_ / name; }

  void look_at(const std::string& name, Pair& pair) const {
    pair.index = read_if_there(base(name) + ".idx");
    pair.data = read_if_there(base(name) + ".dat");
    pair.complete = fs::is_regular_file(base(name) + ".idx") && fs::exists(base(name) + ".dat");
    if (!pair.complete) return;
    Walk walk = walk_pair(base(name));
    pair.records = std::move(walk.records);
    pair.problems = std::move(walk.problems);
  }

  // All in the folder; undo data stands in a file of its own where attributes cannot be had, and a
  // temporary file's name ends in a number of the system's.
  [[nodiscard]] std::set<std::string> files() const {
    std::set<std::string> all;
    for (const auto& entry : fs::directory_iterator(folder_.path())) {
      std::string name = entry.path().filename();
      for (const std::string_view part : {".kestro", ".idx.new"}) {
        if (const std::size_t at = name.find(part); at != name.npos) name.resize(at + part.size());
      }
      if (!name.ends_with(".undo")) all.insert(name);
    }
    return all;
  }

  std::string outcome(const Run& run, const RunResult& result) {
    std::string said = result.signal != 0 ? "signal " + std::to_string(result.signal)
                                          : "status " + std::to_string(result.status);
    if (result.timed_out) wrong_ += "it does not end\n";
    const bool may_change = run.words.empty() || !run.words[0].starts_with('-') ||
                            run.words[0].find('n') == std::string::npos;
    for (const std::string& name : names_) {
      Pair now;
      look_at(name, now);
      said += "; " + name + ": " + change_of(name, pairs_.at(name), now, may_change);
      pairs_.at(name) = std::move(now);
    }
    const std::set<std::string> before = std::exchange(files_, files());
    for (const std::string& file : files_) said += before.contains(file) ? "" : "; new: " + file;
    for (const std::string& file : before) said += files_.contains(file) ? "" : "; gone: " + file;
    return said;
  }

  std::string change_of(const std::string& name, const Pair& before, const Pair& now,
                        bool may_change) {
    const bool changed = before.index != now.index;
    if (before.data != now.data) wrong_ += name + ".dat was changed\n";
    if (changed && !may_change) wrong_ += name + ".idx was changed\n";
    std::string said = changed ? "index changed" : "as it was";
    if (!now.complete) return said + ", not complete";
    said += ", " + std::to_string(now.records.size()) + " records";
    const auto gone = std::ranges::count_if(before.records, [&](const auto& record) {
      const auto at = now.records.find(record.first);
      return at == now.records.end() || at->second != record.second;
    });
    if (gone != 0) said += " (" + std::to_string(gone) + " gone)";
    if (now.problems.empty()) return said + ", sound";
    return said + ", not sound: " + now.problems.front();
  }

  std::string program_;
  TempFolder folder_;
  std::vector<std::string> names_;
  std::map<std::string, Pair> pairs_;
  std::set<std::string> files_;
  std::string wrong_;
};

}  // namespace

Transcript make_transcript(const Recipe& recipe, const std::string& program) {
  Stage stage(recipe, program);
  Transcript made;
  made.first = stage.run(recipe.first());
  made.second = stage.run(recipe.second());
  made.wrong = stage.wrong();
  return made;
}

}  // namespace testing_support
