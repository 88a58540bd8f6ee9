// lruring: the order in which buffers of the pool were released.
//
// A ring of releases, read from its old end; a release counts only while it is its buffer's last
// one and the buffer idle. Unlike a linked list it costs a page found in the pool no look at other
// buffers. A buffer in use while its release is met is out of order until its next one.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "common/arena.h"
#include "isam/pool/buffers.h"

namespace isam {

inline constexpr std::uint64_t kOutOfOrder = 0;  // of Buffer::released: in no ring

class LruRing {
 public:
  // Makes room for so many buffers, which are all that are in order or more; false without memory,
  // with everything as it was.
  [[nodiscard]] bool resize(std::size_t buffers) {
    const std::size_t releases = std::bit_ceil(buffers * 4);
    if (releases == mask_ + 1) return true;
    LruRing other;
    other.ring_ = common::make_arena<Buffer*>(releases);
    other.numbers_ = common::make_arena<std::uint64_t>(releases);
    if (other.ring_ == nullptr || other.numbers_ == nullptr) return false;
    other.mask_ = releases - 1;
    for (; begin_ != end_; ++begin_) {
      if (counts(begin_)) other.released(ring_[begin_ & mask_]);
    }
    *this = std::move(other);
    return true;
  }
  // Takes note of a release, whose number `buffer->released` is. There is room for the buffer.
  void released(Buffer* buffer) {
    if (end_ - begin_ > mask_) compact();
    ring_[end_ & mask_] = buffer;
    numbers_[end_++ & mask_] = buffer->released;
  }
  // The buffer that was released longest ago, which stays in the ring; null when no release counts.
  [[nodiscard]] Buffer* oldest() {
    for (; begin_ != end_; ++begin_) {
      if (!counts(begin_)) continue;
      Buffer* const buffer = ring_[begin_ & mask_];
      if ((buffer->flags & kBusy) == 0) return buffer;
      buffer->released = kOutOfOrder;
    }
    return nullptr;
  }

 private:
  [[nodiscard]] bool counts(std::uint64_t at) const {
    return ring_[at & mask_]->released == numbers_[at & mask_];
  }
  // At most one release of each buffer counts, so that most of a full ring goes.
  void compact() {
    std::uint64_t to = begin_;
    for (std::uint64_t from = begin_; from != end_; ++from) {
      if (!counts(from)) continue;
      ring_[to & mask_] = ring_[from & mask_];
      numbers_[to++ & mask_] = numbers_[from & mask_];
    }
    end_ = to;
  }

  common::Arena<Buffer*> ring_;
  common::Arena<std::uint64_t> numbers_;
  std::uint64_t mask_ = 0;
  std::uint64_t begin_ = 0;
  std::uint64_t end_ = 0;
};

}  // namespace isam
