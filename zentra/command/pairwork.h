// pairwork: one pair of a run.
#pragma once

#include <cstddef>
#include <memory>

#include "zentra/command/pairrunner.h"

namespace zentra {

// The report that a run asks for, as it suits standard output.
[[nodiscard]] std::unique_ptr<Report> report_of(const Run& run);

// Works on the pair at `at` in the run's list, and reports.
Outcome work_on(const Run& run, std::size_t at, Report& report);
// The same, but the report comes out when nothing of the pair is locked any more.
Outcome work_held(const Run& run, std::size_t at, Report& report);

// What all that was printed so far has come to.
[[nodiscard]] bool output_is_whole();

}  // namespace zentra
