// output: the report on standard output, complaints on standard error, and what the program ends
// with.
#pragma once

#include <string_view>

namespace recover {

enum class Status : int {
  kAll = 0,    // everything was applied, or listed and found whole
  kSome = 1,   // something was left out, or is damaged
  kFailed = 2  // stopped, or never begun
};

void print(std::string_view text);
// One line, with the program's name before it.
void complain(std::string_view text);
// Writes out what print() has kept: false when any of it was lost.
[[nodiscard]] bool finish_output();

}  // namespace recover
