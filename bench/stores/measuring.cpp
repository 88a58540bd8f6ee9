#include "bench/stores/measuring.h"

#include <sys/resource.h>

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

}  // namespace

double now() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(time).count();
}

Stopwatch::Stopwatch() : start_{.cpu = cpu_used(), .wall = now()} {}

Cost Stopwatch::cost() const {
  return {.cpu = cpu_used() - start_.cpu, .wall = now() - start_.wall};
}

void print_heading() {
  std::printf("%-16s %-12s %9s %11s %12s %12s\n", "store", "phase", "processes", "operations",
              "cpu-us/op", "op/s");
}

void print_line(const std::string& store, const std::string& phase, int processes,
                std::uint64_t operations, const Cost& cost) {
  const auto count = static_cast<double>(operations);
  std::printf("%-16s %-12s %9d %11llu %12.3f %12.0f\n", store.c_str(), phase.c_str(), processes,
              static_cast<unsigned long long>(operations), cost.cpu / count * 1e6,
              count / cost.wall);
  std::fflush(stdout);
}

}  // namespace bench
