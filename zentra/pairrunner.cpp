#include "zentra/pairrunner.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <span>
#include <string>

#include "zentra/progress.h"
#include "zentra/text.h"

namespace zentra {
namespace {

std::unique_ptr<Report> report_of(const Run& run) {
  return run.json ? json_report(run.good) : text_report(::isatty(STDOUT_FILENO) == 1);
}

// What all that was printed so far has come to.
bool output_is_whole() { return std::fflush(stdout) == 0 && std::ferror(stdout) == 0; }

std::FILE* output_file() {
  std::FILE* const file = std::tmpfile();
  if (file != nullptr) return file;
  const int fd = ::memfd_create("report", MFD_CLOEXEC);
  return fd < 0 ? nullptr : ::fdopen(fd, "w+");
}

// Copies the whole lines of a report to standard output: whether there were any. `is_whole`: the
// last line is one even without its end.
bool pass_on(std::FILE* output, bool is_whole) {
  std::array<char, 65536> buffer;
  std::string rest;
  bool any = false;
  erase_progress();
  std::fseek(output, 0, SEEK_SET);
  while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), output)) {
    rest.append(buffer.data(), got);
    const std::size_t end = is_whole ? rest.size() : rest.rfind('\n') + 1;
    if (end == 0) continue;
    std::fwrite(rest.data(), 1, end, stdout);
    rest.erase(0, end);
    any = true;
  }
  std::fflush(stdout);
  return any;
}

// While it exists standard output goes into a file, and afterwards to where it went before: whoever
// reads it slowly keeps nobody from the pair.
class Collected {
 public:
  Collected() : file_(output_file()) {
    std::fflush(stdout);
    if (file_ == nullptr) return;
    before_ = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    if (before_ >= 0) ::dup2(::fileno(file_), STDOUT_FILENO);
  }
  Collected(const Collected&) = delete;
  Collected& operator=(const Collected&) = delete;
  ~Collected() {
    if (file_ == nullptr) return;
    if (before_ >= 0) {
      std::fflush(stdout);
      ::dup2(before_, STDOUT_FILENO);
      ::close(before_);
      pass_on(file_, true);
    }
    std::fclose(file_);
  }

 private:
  std::FILE* file_;
  int before_ = -1;
};

Outcome work_on(const Run& run, std::size_t at, Report& report) {
  const int number = static_cast<int>(at) + 1;
  const int pairs = static_cast<int>(run.pairs.size());
  progress_of_pair(number, pairs);
  report.pair_begins(number, pairs, run.pairs[at]);
  try {
    return run.work(run.pairs[at], report);
  } catch (const std::bad_alloc&) {
    report.pair_ends(Status::kUnfinished, "could not be finished: no memory", {});
    return {};
  }
}

// The report comes out when nothing of the pair is locked any more.
Outcome work_collected(const Run& run, std::size_t at, Report& report) {
  const Collected collected;
  return work_on(run, at, report);
}

// Memory that a process and its children have in common.
class SharedOutcomes {
 public:
  explicit SharedOutcomes(std::size_t count) : count_(count) {
    void* const memory = ::mmap(nullptr, count * sizeof(Outcome), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    all_ = static_cast<Outcome*>(memory);
    std::uninitialized_fill_n(all_, count, Outcome{});
  }
  SharedOutcomes(const SharedOutcomes&) = delete;
  SharedOutcomes& operator=(const SharedOutcomes&) = delete;
  ~SharedOutcomes() { ::munmap(all_, count_ * sizeof(Outcome)); }

  [[nodiscard]] std::span<Outcome> all() const { return {all_, count_}; }

 private:
  Outcome* all_;
  std::size_t count_;
};

// A process at work on a pair, and the file that has its report.
struct Worker {
  pid_t process = -1;
  std::FILE* output = nullptr;
  bool has_ended = false;
  std::string failure{};  // what became of it; empty when it came to its end
};

std::string failure_of(int status) {
  if (WIFSIGNALED(status)) return fmt::format("could not be finished: signal {}", WTERMSIG(status));
  return WEXITSTATUS(status) == 0 ? "" : "could not be finished";
}

[[noreturn]] void be_worker(const Run& run, std::size_t at, std::FILE* output, Outcome& outcome) {
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  stop_showing();
  const std::unique_ptr<Report> report = report_of(run);  // as it suits the output itself
  ::dup2(::fileno(output), STDOUT_FILENO);
  const Outcome done = work_on(run, at, *report);
  if (output_is_whole()) {
    outcome = done;
  } else {
    outcome.status = Status::kUnfinished;
  }
  std::fflush(stderr);
  ::_exit(0);
}

class Crew {
 public:
  Crew(const Run& run, Report& report)
      : run_(run), report_(report), outcomes_(run.pairs.size()), workers_(run.pairs.size()) {
    std::signal(SIGCHLD, SIG_DFL);  // where it is ignored nobody learns how a process ended
  }

  std::vector<Outcome> work() {
    while (reported_ < workers_.size()) {
      while (started_ < workers_.size() && at_work_ < run_.jobs && start()) ++started_;
      if (at_work_ > 0) wait_for_one();
      while (reported_ < started_ && workers_[reported_].has_ended) conclude(reported_++);
    }
    return {outcomes_.all().begin(), outcomes_.all().end()};
  }

 private:
  // False: no process to be had now.
  bool start() {
    Worker& worker = workers_[started_];
    std::fflush(stdout);
    worker.output = output_file();
    if (worker.output != nullptr) worker.process = ::fork();
    if (worker.process == 0) be_worker(run_, started_, worker.output, outcomes_.all()[started_]);
    if (worker.process > 0) {
      ++at_work_;
      return true;
    }
    if (worker.output != nullptr) std::fclose(worker.output);
    worker.output = nullptr;
    if (at_work_ > 0) return false;
    // Nobody will end and make room: this process does it itself.
    while (reported_ < started_) conclude(reported_++);
    outcomes_.all()[started_] = work_collected(run_, started_, report_);
    worker.has_ended = true;
    return true;
  }

  void wait_for_one() {
    int status = 0;
    pid_t ended = 0;
    while ((ended = ::waitpid(-1, &status, WNOHANG)) == 0) {
      const auto done = static_cast<std::int64_t>(started_) - at_work_;
      show_progress("Pairs done", done, static_cast<std::int64_t>(workers_.size()), 0);
      constexpr timespec kPause{0, 2'000'000};
      ::nanosleep(&kPause, nullptr);
    }
    if (ended < 0 && errno == EINTR) return;
    for (Worker& worker : workers_) {
      const bool is_running = worker.process > 0 && !worker.has_ended;
      if (!is_running || (ended > 0 && worker.process != ended)) continue;
      worker.has_ended = true;
      worker.failure =
          ended > 0 ? failure_of(status) : "could not be finished: its process is lost";
      --at_work_;
    }
  }

  void conclude(std::size_t at) {
    Worker& worker = workers_[at];
    if (worker.output == nullptr) return;
    const bool is_whole = worker.failure.empty();
    const bool has_begun = pass_on(worker.output, is_whole);
    std::fclose(worker.output);
    worker.output = nullptr;
    if (is_whole) return;
    outcomes_.all()[at] = {};
    const int number = static_cast<int>(at) + 1;
    if (has_begun) {
      report_.pair_is(number, run_.pairs[at]);
    } else {
      report_.pair_begins(number, static_cast<int>(workers_.size()), run_.pairs[at]);
    }
    report_.pair_ends(Status::kUnfinished, worker.failure, {});
  }

  const Run& run_;
  Report& report_;
  SharedOutcomes outcomes_;
  std::vector<Worker> workers_;
  std::size_t started_ = 0;
  std::size_t reported_ = 0;
  int at_work_ = 0;
};

}  // namespace

void with_output_held(const std::function<void()>& work) {
  const Collected collected;
  work();
}

int run_pairs(const Run& run) {
  start_progress();
  const std::unique_ptr<Report> report = report_of(run);
  report->begin(run.command, static_cast<int>(run.pairs.size()));
  std::vector<Outcome> outcomes;
  if (run.jobs > 1 && run.pairs.size() > 1) {
    outcomes = Crew(run, *report).work();
  } else {
    for (std::size_t at = 0; at < run.pairs.size(); ++at) {
      outcomes.push_back(run.asks ? work_on(run, at, *report) : work_collected(run, at, *report));
    }
  }
  checker::Tally tally;
  for (const Outcome& outcome : outcomes) tally.add(outcome.status, outcome.findings);
  Status worst = tally.worst();
  erase_progress();
  report->end(worst, tally.fields(run.good));
  if (!output_is_whole()) {
    std::fprintf(stderr, "zentra: the report could not be written: %s\n", std::strerror(errno));
    if (!run.changes) worst = Status::kUnfinished;
  }
  return static_cast<int>(worst);
}

}  // namespace zentra
