#include "zentra/command/crew.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "common/holders.h"
#include "zentra/command/heldoutput.h"
#include "zentra/command/pairwork.h"
#include "zentra/command/sharedpairs.h"
#include "zentra/report/progress.h"

namespace zentra {
namespace {

constexpr int kLookMilliseconds = 200;       // between looks at whether the progress is asked for
constexpr off_t kRoomKept = off_t{1} << 20;  // in a file of reports that have been printed
constexpr std::size_t kReceivedAtOnce = 64;

// The file in which a worker reports.
struct ReportFile {
  HeldFile file = held_file();
  off_t given_back = 0;  // its room before this
};

// Gives the room back of what has been printed up to there, on file systems that can.
void give_room_back(ReportFile& reports, off_t end) {
  if (end - reports.given_back < kRoomKept) return;
  static_cast<void>(::fallocate(::fileno(reports.file.get()),
                                FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, reports.given_back,
                                end - reports.given_back));
  reports.given_back = end;
}

struct Worker {
  std::int32_t number;  // by which it takes pairs
  pid_t process;
  common::FileHold read_end;  // of the pipe in which it tells
  std::shared_ptr<ReportFile> reports;
  std::unique_ptr<SharedFinish> last;
  off_t end = 0;  // of the reports of the pairs that it has told of
};

// What became of a pair. A worker that has died keeps its file until its reports are printed.
struct Result {
  bool is_done = false;
  Outcome outcome{};
  std::shared_ptr<ReportFile> reports{};
  HeldPart part{};
  std::string failure{};  // of its worker
};

std::string failure_of(int status) {
  if (WIFSIGNALED(status)) return fmt::format("could not be finished: signal {}", WTERMSIG(status));
  const int error = WEXITSTATUS(status);
  if (error == 0) return "could not be finished";
  return fmt::format("could not be finished: its report could not be written: {}",
                     std::strerror(error));
}

// Where standard output will end when all that was printed has been written.
off_t end_of_output() {
  return ::lseek(STDOUT_FILENO, 0, SEEK_CUR) + static_cast<off_t>(::__fpending(stdout));
}

// Ends the process: by an errno when a report could not be written, and by a signal where an
// exception would lead back into what the process had been forked from.
[[noreturn]] void be_worker(const Run& run, SharedPairs& pairs, std::int32_t number,
                            const ReportFile& reports, SharedFinish& last, int write_end) noexcept {
  stop_showing();
  const std::unique_ptr<Report> report = report_of(run);
  ::dup2(::fileno(reports.file.get()), STDOUT_FILENO);
  off_t begin = 0;
  while (const auto pair = pairs.take(number)) {
    const Outcome outcome = work_on(run, *pair, *report);
    const Finished finished{*pair, outcome, {begin, end_of_output()}};
    last.announce(finished);
    errno = 0;
    if (!output_is_whole()) ::_exit(errno != 0 ? errno : EIO);
    if (::write(write_end, &finished, sizeof(finished)) != sizeof(finished)) ::_exit(EPIPE);
    begin = finished.part.end;
  }
  std::fflush(stderr);
  ::_exit(0);
}

class Crew {
 public:
  Crew(const Run& run, Report& report)
      : run_(run), report_(report), pairs_(run.pairs.size()), results_(run.pairs.size()) {
    std::signal(SIGCHLD, SIG_DFL);  // where it is ignored nobody learns how a process ended
  }

  std::vector<Outcome> work() {
    while (reported_ < results_.size()) {
      start_workers();
      workers_.empty() ? work_alone() : listen();
      while (reported_ < results_.size() && results_[reported_].is_done) conclude(reported_++);
      std::fflush(stdout);
    }
    while (!workers_.empty()) listen();
    std::vector<Outcome> outcomes;
    for (const Result& result : results_) outcomes.push_back(result.outcome);
    return outcomes;
  }

 private:
  void start_workers() {
    const auto wanted = std::min<std::size_t>(run_.jobs, results_.size() - done_);
    while (workers_.size() < wanted && pairs_.is_any_left() && start_worker()) {
    }
  }

  // False: no process is to be had now.
  bool start_worker() {
    const auto reports = std::make_shared<ReportFile>();
    auto last = std::make_unique<SharedFinish>();
    std::array<int, 2> ends{};
    if (reports->file == nullptr || ::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    common::FileHold read_end{ends[0]};
    const common::FileHold write_end{ends[1]};
    std::fflush(stdout);
    const std::int32_t number = ++started_;
    const pid_t employer = ::getpid();
    const pid_t process = ::fork();
    if (process == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (::getppid() != employer) ::_exit(0);  // it died before that
      be_worker(run_, pairs_, number, *reports, *last, write_end.get());
    }
    if (process < 0) return false;
    workers_.push_back({number, process, std::move(read_end), reports, std::move(last)});
    return true;
  }

  // Nobody is at work who would end and make room for others: this process takes a pair itself.
  void work_alone() {
    const auto pair = pairs_.take(++started_);
    if (!pair) return;
    while (reported_ < *pair) conclude(reported_++);
    results_[*pair] = {.is_done = true, .outcome = work_held(run_, *pair, report_)};
    ++done_;
  }

  // Waits for what a worker tells, or for its end.
  void listen() {
    show_progress("Pairs done", static_cast<std::int64_t>(done_),
                  static_cast<std::int64_t>(results_.size()), 0);
    std::vector<pollfd> ends;
    for (const Worker& worker : workers_) {
      ends.push_back({.fd = worker.read_end.get(), .events = POLLIN, .revents = 0});
    }
    if (::poll(ends.data(), ends.size(), kLookMilliseconds) <= 0) return;
    for (std::size_t at = ends.size(); at-- > 0;) {
      if (ends[at].revents == 0 || receive(workers_[at])) continue;
      reap(workers_[at]);
      workers_.erase(workers_.begin() + static_cast<std::ptrdiff_t>(at));
    }
  }

  // False: the worker has ended.
  bool receive(Worker& worker) {
    std::array<Finished, kReceivedAtOnce> all;
    const ssize_t got = ::read(worker.read_end.get(), all.data(), sizeof(all));
    if (got < 0) return errno == EINTR;
    const std::size_t count = static_cast<std::size_t>(got) / sizeof(Finished);
    for (const Finished& finished : std::span{all}.first(count)) accept(finished, worker);
    return count > 0;
  }

  void accept(const Finished& finished, Worker& worker) {
    results_[finished.pair] = {true, finished.outcome, worker.reports, finished.part};
    worker.end = finished.part.end;
    ++done_;
  }

  // What it had taken and not told of is not done, unless all of its report is there.
  void reap(Worker& worker) {
    int status = 0;
    pid_t ended = 0;
    while ((ended = ::waitpid(worker.process, &status, 0)) < 0 && errno == EINTR) {
    }
    const bool ended_well = ended > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    for (std::size_t at = reported_; at < results_.size(); ++at) {
      if (pairs_.taker_of(at) != worker.number || results_[at].is_done) continue;
      const auto last = worker.last->of(at);
      const bool is_whole = last && size_of(worker.reports->file.get()) >= last->part.end;
      return is_whole ? accept(*last, worker)
                      : fail(at, worker, ended > 0 ? failure_of(status) : kLost);
    }
    if (ended_well) return;
    // It died before it took any, and so may the next one: one pair less is left for that.
    const auto pair = pairs_.take(worker.number);
    if (pair) fail(*pair, worker, ended > 0 ? failure_of(status) : kLost);
  }

  void fail(std::size_t at, const Worker& worker, const std::string& why) {
    constexpr off_t kAll = INT64_MAX;
    results_[at] = {true, {}, worker.reports, {worker.end, kAll}, why};
    ++done_;
  }

  void conclude(std::size_t at) {
    Result& result = results_[at];
    if (result.reports == nullptr) return;  // it has been printed
    const bool is_whole = result.failure.empty();
    const bool has_begun = print_held(result.reports->file.get(), result.part, is_whole);
    if (is_whole) give_room_back(*result.reports, result.part.end);
    result.reports = nullptr;
    if (is_whole) return;
    const int number = static_cast<int>(at) + 1;
    if (has_begun) {
      report_.pair_is(number, run_.pairs[at]);
    } else {
      report_.pair_begins(number, static_cast<int>(results_.size()), run_.pairs[at]);
    }
    report_.pair_ends(Status::kUnfinished, result.failure, {});
  }

  static constexpr char kLost[] = "could not be finished: its process is lost";

  const Run& run_;
  Report& report_;
  SharedPairs pairs_;
  std::vector<Result> results_;
  std::vector<Worker> workers_;
  std::size_t done_ = 0;
  std::size_t reported_ = 0;
  std::int32_t started_ = 0;
};

}  // namespace

std::vector<Outcome> work_in_crew(const Run& run, Report& report) {
  return Crew(run, report).work();
}

}  // namespace zentra
