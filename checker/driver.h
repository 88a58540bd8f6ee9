// driver: the check of one pair from opening to summary.
#pragma once

#include <string>

#include "checker/check.h"

namespace checker {

struct Outcome {
  bool whole = false;  // the whole sequence ran; else it stopped early
  int findings = 0;
  int declined = 0;  // questions answered no
};

// Checks the pair whose base name, ".dat" or ".idx" file is given.
Outcome ckfile(std::string name, const Options& options, Listener& listener);

}  // namespace checker
