// model_faults: the writes that the system refuses while the model's calls are done.
#pragma once

#include <utility>

#include "tests/support/between.h"

namespace testing_support::model {

// Which writes the system refuses.
enum class Refused { kNone, kOne, kGrowth, kAll };
inline struct {
  Refused what = Refused::kNone;
  int error = 0;
  unsigned left = 0;                     // writes that are still done
  int hits = 0;                          // since the last look
  std::pair<int, off_t> no_room{-1, 0};  // in this call: file and end that one was to lengthen
} faults;

inline int before_write(const SystemCall& call) {
  if (call.kind != SystemCall::kWrite) return 0;
  const bool again = faults.no_room == std::pair{call.fd, call.at} && call.grows();  // or with less
  const bool meant =
      faults.what != Refused::kNone && (faults.what != Refused::kGrowth || call.grows());
  if (!again && (!meant || (faults.left > 0 && faults.left-- > 0))) return 0;
  if (faults.what == Refused::kOne) {
    faults.what = Refused::kNone;
    if (call.grows()) faults.no_room = {call.fd, call.at};
  }
  ++faults.hits;
  return faults.error;
}

}  // namespace testing_support::model
