// driver: the check and the repair of one pair, from opening to summary.
#pragma once

#include <string>

#include "checker/check.h"

namespace checker {

struct Outcome {
  // The whole sequence ran; else it stopped early. A repair that could not be brought in at the end
  // does not count here: a remark to the listener tells of it.
  bool whole = false;
  int findings = 0;
  int declined = 0;  // questions answered no
};

// Checks the pair whose base name, ".dat" or ".idx" file is given, and repairs what the listener
// agrees to.
Outcome ckfile(std::string name, const Options& options, Listener& listener);

}  // namespace checker
