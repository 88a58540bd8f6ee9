// driver: the check and the repair of one pair, from opening to summary.
#pragma once

#include <string>

#include "checker/check.h"

namespace checker {

struct Outcome {
  // The whole sequence ran; else it stopped early: the pair could not be opened, a check could not
  // go on, a repair could not begin, or memory ran out. An error of the system that ends a repair
  // later, or keeps it from coming into the pair, leaves this true: a remark to the listener tells
  // of it.
  bool whole = false;
  bool repaired = false;  // what was agreed to has come into the pair
  int findings = 0;
  int declined = 0;               // questions answered no
  std::int32_t system_error = 0;  // the first that the checks have met, as an errno; 0 for none
};

// Checks the pair whose base name, ".dat" or ".idx" file is given, and repairs what the listener
// agrees to; with a supervisor as he wants it.
Outcome ckfile(std::string name, const Options& options, Listener& listener,
               Supervisor* supervisor = nullptr);

// The checks alone, of the current file, whose dictionary is read; they change nothing when all
// questions are answered no. False when they stopped early.
[[nodiscard]] bool run_checks(Check& check);
// What no check tests and no repair mends, though it makes every program refuse the pair.
void tell_why_refused(Check& check);

// Leaves out the suffix of a name that has one of a pair's.
void cut_suffix(std::string& name);

// What the check has come to know of the pair; it must be sized.
[[nodiscard]] Summary summary_of(const Check& check);

}  // namespace checker
