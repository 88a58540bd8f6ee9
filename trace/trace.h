// trace: dumps of what an application and the library hand each other.
//
// `SQLIDEBUG` names the file; without it nothing is written. A process appends to it:
//
//   2026-11-21T10:45:12.123456Z 4711 > iswrite 0, 20 bytes
//        0  30 30 30 30 30 30 34 32  53 6D 69 74 68 20 20 20  |00000042Smith   |
//       16  00 00 00 07                                       |....|
//   2026-11-21T10:45:12.123480Z 4711 < iswrite 0 = 0
//
// Keeps   an entry goes to the file in one piece, so that several processes may share it
// Never   fails a call or changes errno: what cannot be written is left out
#pragma once

#include <string_view>
#include <utility>

#include "common/bytes.h"

namespace trace {

enum class State { kUnknown, kOff, kOn };
inline State state = State::kUnknown;  // until on() is first asked

// Whether to trace. The first call opens the file, or decides that there is none.
[[nodiscard]] bool on() noexcept;

enum class Direction : char { kToLibrary = '>', kToApplication = '<' };

// Writes an entry: a line with time, process and `call`, then a dump of `buffer`. Only while on().
// Ends the trace when the application has closed the file's descriptor.
void write(Direction direction, std::string_view call, common::ConstBytes buffer) noexcept;

// Runs the body of a call that the trace shows. Library calls that it makes are not shown.
template <typename Body>
int untraced(Body body) {
  const State before = std::exchange(state, State::kOff);
  const int result = body();
  state = before;
  return result;
}

}  // namespace trace
