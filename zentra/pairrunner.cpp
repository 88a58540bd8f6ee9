#include "zentra/pairrunner.h"

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

#include "zentra/progress.h"
#include "zentra/text.h"

namespace zentra {
namespace {

std::unique_ptr<Report> report_of(const Run& run) {
  return run.json ? json_report() : text_report(::isatty(STDOUT_FILENO) == 1);
}

// What all that was printed so far has come to.
bool output_is_whole() { return std::fflush(stdout) == 0 && std::ferror(stdout) == 0; }

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
  int status = 0;  // as wait() gives it
};

[[noreturn]] void be_worker(const Run& run, std::size_t at, std::FILE* output, Outcome& outcome) {
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  stop_showing();
  ::dup2(::fileno(output), STDOUT_FILENO);
  const std::unique_ptr<Report> report = report_of(run);
  const Outcome done = work_on(run, at, *report);
  if (output_is_whole()) {
    outcome = done;
  } else {
    outcome.status = Status::kUnfinished;
  }
  std::fflush(stderr);
  ::_exit(0);
}

std::FILE* output_file() {
  std::FILE* const file = std::tmpfile();
  if (file != nullptr) return file;
  const int fd = ::memfd_create("report", MFD_CLOEXEC);
  return fd < 0 ? nullptr : ::fdopen(fd, "w+");
}

// Copies a worker's report to standard output.
void pass_on(Worker& worker) {
  std::array<char, 65536> buffer;
  erase_progress();
  std::fseek(worker.output, 0, SEEK_SET);
  while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), worker.output)) {
    std::fwrite(buffer.data(), 1, got, stdout);
  }
  std::fclose(worker.output);
  worker.output = nullptr;
}

class Crew {
 public:
  Crew(const Run& run, Report& report)
      : run_(run), report_(report), outcomes_(run.pairs.size()), workers_(run.pairs.size()) {}

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
    outcomes_.all()[started_] = work_on(run_, started_, report_);
    worker.has_ended = true;
    return true;
  }

  void wait_for_one() {
    int status = 0;
    pid_t ended = 0;
    while ((ended = ::waitpid(-1, &status, WNOHANG)) == 0) {
      const auto done = static_cast<std::int64_t>(started_) - at_work_;
      show_progress("Pairs", done, static_cast<std::int64_t>(workers_.size()), 0);
      constexpr timespec kPause{0, 2'000'000};
      ::nanosleep(&kPause, nullptr);
    }
    for (Worker& worker : workers_) {
      if (worker.process != ended) continue;
      worker.has_ended = true;
      worker.status = status;
      --at_work_;
    }
  }

  void conclude(std::size_t at) {
    Worker& worker = workers_[at];
    if (worker.output == nullptr) return;
    pass_on(worker);
    if (WIFEXITED(worker.status)) return;
    outcomes_.all()[at].status = Status::kUnfinished;
    report_.pair_begins(static_cast<int>(at) + 1, static_cast<int>(workers_.size()),
                        run_.pairs[at]);
    report_.pair_ends(Status::kUnfinished,
                      fmt::format("could not be finished: signal {}", WTERMSIG(worker.status)), {});
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

int run_pairs(const Run& run) {
  start_progress();
  const std::unique_ptr<Report> report = report_of(run);
  report->begin(run.command, static_cast<int>(run.pairs.size()));
  std::vector<Outcome> outcomes;
  if (run.jobs > 1 && run.pairs.size() > 1) {
    outcomes = Crew(run, *report).work();
  } else {
    for (std::size_t at = 0; at < run.pairs.size(); ++at) {
      outcomes.push_back(work_on(run, at, *report));
    }
  }
  Status worst = Status::kSound;
  std::int64_t findings = 0;
  std::array<std::int64_t, 5> counts{};
  for (const Outcome& outcome : outcomes) {
    worst = worse(worst, outcome.status);
    findings += outcome.findings;
    ++counts[static_cast<std::size_t>(outcome.status)];
  }
  Fields fields{{"pairs", static_cast<std::int64_t>(outcomes.size())}};
  for (std::size_t i = 0; i < counts.size(); ++i) {
    fields.emplace_back(verdict_of(static_cast<Status>(i)), counts[i]);
  }
  fields.emplace_back("findings", findings);
  erase_progress();
  report->end(worst, fields);
  if (!output_is_whole()) {
    std::fprintf(stderr, "zentra: the report could not be written: %s\n", std::strerror(errno));
    worst = Status::kUnfinished;
  }
  return static_cast<int>(worst);
}

}  // namespace zentra
