// crew: processes that share the pairs of a run among them.
//
// The library works on one pair at a time, so each worker is a process. It takes the next pair that
// nobody has, as long as there is one, writes its report into a file of its own, and tells where it
// stands by a pipe. The process that employs them prints the reports in the order of the pairs.
//
// Keeps   the report is the same as that of one process, but for times and for pairs whose worker
//         died: these end with status 4, and another worker takes the place
#pragma once

#include <vector>

#include "zentra/command/pairrunner.h"

namespace zentra {

// Works on all pairs, in up to `run.jobs` processes, and reports them.
[[nodiscard]] std::vector<Outcome> work_in_crew(const Run& run, Report& report);

}  // namespace zentra
