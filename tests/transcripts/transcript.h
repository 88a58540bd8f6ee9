// transcript: a recipe carried out, and all that was printed.
#pragma once

#include <string>

#include "tests/transcripts/recipe.h"

namespace testing_support {

struct Transcript {
  std::string first;
  std::string second;
  std::string wrong;  // what no run may do, whatever it prints; empty for none
};

// Runs the program twice on the pairs of a recipe, in a folder of their own. What each run printed
// on standard output and standard error is followed by a line with its exit status and, for each
// pair: which of its files changed, how many of its records can be read, and whether a reader
// independent of the program finds it sound.
Transcript make_transcript(const Recipe& recipe, const std::string& program);

}  // namespace testing_support
