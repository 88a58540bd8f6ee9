// walklimit: where a walk over damaged links ends.
//
//   StepLimit   the most steps are known
//   WalkLimit   the steps go over the items of a tree
//   LoopGuard   nothing is known of the chain
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

class StepLimit {
 public:
  explicit StepLimit(std::int32_t most) : left_(most) {}

  // Counts a step: whether it was one too many.
  [[nodiscard]] bool exceeded() { return left_-- <= 0; }
  // Whether the next one would be.
  [[nodiscard]] bool is_reached() const { return left_ <= 0; }

 private:
  std::int64_t left_;
};

// A sound index has an item for each record and no more. In a damaged one a node may be met again
// and again on different ways: a walk may pass no more items than the file can have records,
// whatever its dictionary says. The file's size is not asked for before the walk is long.
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

// Tells a walk that it goes round. It remembers one node, and another one at growing distances,
// which finds every loop, but not at once: of n nodes a walk may be given 3n pages before.
class LoopGuard {
 public:
  // Whether `node`, the next of the walk, is the one remembered.
  [[nodiscard]] bool meets(std::int32_t node) {
    if (node == remembered_) return true;
    if (nodes_ == next_) {
      remembered_ = node;
      next_ = next_ == 0 ? 1 : 2 * next_;
    }
    ++nodes_;
    return false;
  }

 private:
  std::int32_t remembered_ = 0;
  std::int64_t nodes_ = 0;
  std::int64_t next_ = 0;  // the count of nodes at which one is remembered
};

}  // namespace isam
