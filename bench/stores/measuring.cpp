#include "bench/stores/measuring.h"

#include <linux/perf_event.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>

namespace bench {
namespace {

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double cpu_used() {
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) != 0) throw std::runtime_error("getrusage");
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// A counter of this process's instructions outside the system; -1 where there is none.
int open_counter() {
  perf_event_attr wanted{};
  wanted.type = PERF_TYPE_HARDWARE;
  wanted.size = sizeof wanted;
  wanted.config = PERF_COUNT_HW_INSTRUCTIONS;
  wanted.exclude_kernel = 1;
  wanted.exclude_hv = 1;
  constexpr pid_t kThisProcess = 0;
  constexpr int kAnyProcessor = -1;
  constexpr int kNoGroup = -1;
  return static_cast<int>(syscall(SYS_perf_event_open, &wanted, kThisProcess, kAnyProcessor,
                                  kNoGroup, PERF_FLAG_FD_CLOEXEC));
}

// A forked process needs a counter of its own.
std::uint64_t instructions_done() {
  static pid_t owner = 0;
  static int counter = -1;
  if (owner != getpid()) {
    owner = getpid();
    counter = open_counter();
  }
  std::uint64_t count = 0;
  return read(counter, &count, sizeof count) == ssize_t{sizeof count} ? count : 0;
}

}  // namespace

double now() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(time).count();
}

Stopwatch::Stopwatch()
    : start_{.cpu = cpu_used(), .wall = now(), .instructions = instructions_done()} {}

Cost Stopwatch::cost() const {
  const std::uint64_t instructions = instructions_done() - start_.instructions;
  return {
      .cpu = cpu_used() - start_.cpu, .wall = now() - start_.wall, .instructions = instructions};
}

void print_heading() {
  std::printf("%-16s %-12s %9s %11s %12s %12s %9s\n", "store", "phase", "processes", "operations",
              "cpu-us/op", "op/s", "instr/op");
}

void print_line(const std::string& store, const std::string& phase, int processes,
                std::uint64_t operations, const Cost& cost) {
  const auto count = static_cast<double>(operations);
  std::printf("%-16s %-12s %9d %11llu %12.3f %12.0f %9.0f\n", store.c_str(), phase.c_str(),
              processes, static_cast<unsigned long long>(operations), cost.cpu / count * 1e6,
              count / cost.wall, static_cast<double>(cost.instructions) / count);
  std::fflush(stdout);
}

}  // namespace bench
