// explain: what isexplain() says of the last call that failed.
//
// Keeps   a call that succeeds does nothing for it; one that fails keeps what it knows at hand, and
//         the words are put together when they are asked for
#pragma once

#include <cstdint>

namespace isam {

// Notes that a public call has failed with what iserrno says. `number`: the open, or the mode that
// a file is opened with. `name`: of a call that is given the name of a file, else null.
[[gnu::cold, gnu::noinline]] void note_failure(const char* call, int number,
                                               const char* name = nullptr);

// The result of a public call, noted when it is a failure.
inline int noted(const char* call, int number, int result) {
  if (result < 0) [[unlikely]] {
    note_failure(call, number);
  }
  return result;
}

// The sentence, valid until the next failure is explained.
[[nodiscard]] const char* explanation();

}  // namespace isam
