// measuring: processor time, wall time and instructions of phases, and the table they are printed
// in.
#pragma once

#include <cstdint>
#include <string>

namespace bench {

// Times in seconds.
struct Cost {
  double cpu = 0;  // user and system, of all processes that took part
  double wall = 0;
  std::uint64_t instructions = 0;  // of the programs, not the system; 0 where they are not counted
};

// Seconds of a clock that all processes share.
double now();

// What this process has used since the stopwatch was made.
class Stopwatch {
 public:
  Stopwatch();
  [[nodiscard]] Cost cost() const;

 private:
  Cost start_;
};

// The table: one line for each phase of each store, in columns that blanks separate.
void print_heading();
void print_line(const std::string& store, const std::string& phase, int processes,
                std::uint64_t operations, const Cost& cost);

}  // namespace bench
