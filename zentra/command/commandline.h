// commandline: what `zentra` does for the words behind its name.
#pragma once

#include <string>
#include <vector>

namespace zentra {

// The exit status.
[[nodiscard]] int run(std::vector<std::string> words);

}  // namespace zentra
