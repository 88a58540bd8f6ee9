// texts: whether all that kestro can print is shown by a transcript.
#pragma once

#include <string>
#include <vector>

namespace testing_support {

// A line for each text that no transcript below `pairs` shows and that the list in its README.md
// does not give to a test either, and for each that it gives to one without need.
std::vector<std::string> texts_not_shown(const std::string& pairs);

}  // namespace testing_support
