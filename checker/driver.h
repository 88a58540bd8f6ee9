// driver: the check of one pair from opening to summary.
#pragma once

#include <string>

namespace checker {

// Checks the pair whose base name, ".dat" or ".idx" file is given: 0 when the whole sequence ran,
// -1 when it stopped early.
int ckfile(std::string name);

}  // namespace checker
