// measure: timing of a child process and of plain reading, and what many runs say together.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// One run. Times in seconds; peak resident memory in bytes.
struct Run {
  double wall = 0;
  double user = 0;
  double system = 0;
  std::int64_t peak = 0;
};

// Runs of one thing: the fastest, and the middle one, by wall time.
struct Summary {
  Run best;
  Run median;
};

// `runs` must not be empty.
[[nodiscard]] Summary summarize(std::vector<Run> runs);

// Reads the files once from start to end, `chunk` bytes with each call. Throws std::system_error
// when one cannot be opened or read.
[[nodiscard]] Run read_through(const std::vector<std::string>& files, std::size_t chunk);

// Runs a program with standard output discarded and waits for it. Throws std::runtime_error when
// it does not end with status 0. The peak is the child's own as long as this process is small: the
// kernel counts what was resident before exec, too.
[[nodiscard]] Run run_child(const std::vector<std::string>& command);

// The whole standard output of a program. Throws as run_child does.
[[nodiscard]] std::string output_of(const std::vector<std::string>& command);

}  // namespace bench
