// pairnames: the pairs that a command line names, each once however it was named.
#pragma once

#include <string>
#include <vector>

namespace zentra {

// Base names in the order in which they were named first.
[[nodiscard]] std::vector<std::string> pairs_named(const std::vector<std::string>& names);

}  // namespace zentra
