// output: the report on standard output, complaints on standard error, and the exit status.
#pragma once

#include <string_view>

namespace recover {

// What a task came to; the number is the program's exit status.
enum class Status : int {
  kAll = 0,    // everything was applied, or everything was listed and nothing is damaged
  kSome = 1,   // something was left out, or is damaged
  kFailed = 2  // stopped, or never begun
};

// Adds to the report, which is written when its buffer is full. A failure shows in finish_output().
void print(std::string_view text);
// Writes a line to standard error, the program's name before the text. What print() was given
// before is written first, so that both stand in order on a terminal.
void complain(std::string_view text);
// Writes the rest of the report: false when any part of the report could not be written.
[[nodiscard]] bool finish_output();

}  // namespace recover
