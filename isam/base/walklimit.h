// walklimit: bounds a walk over the items of a tree.
//
// A sound index has an item for each record and no more. In a damaged one a node may be met again
// and again on different ways, so that a walk over it would not end.
//
// Gives   whether a walk has passed more items than the file can have records, whatever its
//         dictionary says
// Never   looks at the file's size before the walk is long
//
//   WalkLimit walk;
//   while (...) {
//     ... move to the next item ...
//     if (walk.exceeded()) return failed(kCorrupted);
//   }
#pragma once

#include <algorithm>
#include <cstdint>

#include "common/io.h"
#include "isam/base/current.h"

namespace isam {

class WalkLimit {
 public:
  // Counts a step: whether the walk has become too long.
  [[nodiscard]] bool exceeded() {
    if (++steps_ == kUnchecked) limit_ = most_records();
    return steps_ >= kUnchecked && steps_ > limit_;
  }

 private:
  static constexpr std::int64_t kUnchecked = 1000;
  static constexpr std::int64_t kMostUnwritten = 1 << 17;  // blocks; no pool has as many

  static std::int64_t most_records() {
    const std::int64_t slot = slot_size();
    const std::int64_t written = common::file_size(filep->data.fd) / slot;
    const std::int64_t slots = written + kMostUnwritten * (kPageSize / slot + 1);
    return std::min<std::int64_t>(dictp->d_nextdata(), slots);
  }

  std::int64_t steps_ = 0;
  std::int64_t limit_ = 0;
};

}  // namespace isam
