// pairrunner: works on several pairs, some of them at the same time.
//
// The library works on one pair at a time, so each of several workers is a process. Their reports
// come out in the order of the pairs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "zentra/report/report.h"

namespace zentra {

// What became of a pair, besides its report.
struct Outcome {
  Status status = Status::kUnfinished;
  std::int64_t findings = 0;
};

struct Run {
  const char* command;
  bool json = false;
  int jobs = 1;
  std::vector<std::string> pairs{};
  bool names_on_input = false;  // their names come from there
  // More of them, where they come as others are worked on, one after the other: false at the end.
  std::function<bool(std::string& name)> next{};
  const char* good = kVerdictSound;  // the verdict of status 0
  bool changes = false;  // files: then the status tells of them, also where the report is lost
  bool asks = false;     // the report comes out as it is made; `work` sees to with_output_held()
  // Works on one pair: between pair_begins() and pair_ends() of the report, both not its own.
  std::function<Outcome(const std::string& name, Report& report)> work;
};

// The exit status.
[[nodiscard]] int run_pairs(const Run& run);

// Lets what `work` prints come out only when it has come to its end: a slow reader keeps nobody
// from what `work` has locked.
void with_output_held(const std::function<void()>& work);

}  // namespace zentra
