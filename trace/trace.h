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
inline State state = State::kUnknown;

// Whether to trace. The first call decides.
[[nodiscard]] bool on() noexcept;

enum class Direction : char { kToLibrary = '>', kToApplication = '<' };

// Writes an entry. Only while on().
void write(Direction direction, std::string_view call, common::ConstBytes buffer) noexcept;

// Runs what is part of a call that shows: calls made within it do not.
template <typename Body>
int untraced(Body body) {
  const State before = std::exchange(state, State::kOff);
  const int result = body();
  state = before;
  return result;
}

}  // namespace trace
