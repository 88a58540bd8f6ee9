// pairnames: the pairs that a command line names, each once however it was named, and those that
// standard input names.
#pragma once

#include <string>
#include <vector>

namespace zentra {

// Base names in the order in which they were named first.
[[nodiscard]] std::vector<std::string> pairs_named(const std::vector<std::string>& names);

// The word that stands for names on standard input.
inline constexpr const char* kNamesOnInput = "-";

// The next name on standard input, each ended by a zero byte: false at its end.
[[nodiscard]] bool next_name(std::string& name);
// Whether no failure kept names from being read.
[[nodiscard]] bool names_are_whole();

}  // namespace zentra
