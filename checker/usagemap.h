// usagemap: one bit for every index node or data record number.
//
// The bits stand in chunks. Chunks that are all clear or all set are shared, so a map over two
// thousand million numbers costs a table of pointers until parts of it are touched.
//
// Needs   numbers from 0 to the highest that reset() was given; callers check them first
// Keeps   the number of set bits, so that counting costs nothing
// Gives   a bit's previous value when it is changed: where it was set already, the number is met a
//         second time
// Throws  std::bad_alloc
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "common/bytes.h"

namespace checker {

class UsageMap {
 public:
  UsageMap() = default;

  // Makes the map cover 0..highest, all clear. Before its first reset() a map covers no number.
  void reset(std::int32_t highest);

  bool set_bit(std::int32_t n) {
    const Word bit = bit_of(n);
    Word& word = writable(n)[word_of(n)];
    const bool was = (word & bit) != 0;
    word |= bit;
    count_ += was ? 0 : 1;
    return was;
  }

  bool clr_bit(std::int32_t n) {
    const Word bit = bit_of(n);
    if (!tstbit(n)) return false;
    writable(n)[word_of(n)] &= ~bit;
    --count_;
    return true;
  }

  [[nodiscard]] bool tstbit(std::int32_t n) const {
    return (directory_[chunk_of(n)][word_of(n)] & bit_of(n)) != 0;
  }

  // The number of set bits.
  [[nodiscard]] std::int32_t cntmap() const { return static_cast<std::int32_t>(count_); }
  // Sets every bit that is set in `other`, a map of the same size.
  void ormap(const UsageMap& other);
  // Clears every bit.
  void clrmap();
  // Sets every bit from first to last.
  void setmap(std::int32_t first, std::int32_t last);

  // The highest set number from n down to 1, or 0.
  [[nodiscard]] std::int32_t previous_set(std::int32_t n) const;
  // The lowest set number from n on, or 0.
  [[nodiscard]] std::int32_t next_set(std::int32_t n) const;
  // The highest clear number from n down to 1, or 0.
  [[nodiscard]] std::int32_t previous_clear(std::int32_t n) const;
  // How many numbers from first to last are set.
  [[nodiscard]] std::int32_t count_set(std::int32_t first, std::int32_t last) const;

 private:
  using Word = std::uint64_t;
  static constexpr std::uint32_t kWordBits = 64;
  static constexpr std::uint32_t kChunkWords = 512;
  static constexpr std::uint32_t kChunkBits = kWordBits * kChunkWords;
  using Chunk = std::array<Word, kChunkWords>;

  static const Chunk kClear;
  static const Chunk kSet;

  static std::uint32_t chunk_of(std::int32_t n) {
    return static_cast<std::uint32_t>(n) / kChunkBits;
  }
  // The word within the chunk.
  static std::uint32_t word_of(std::int32_t n) {
    return static_cast<std::uint32_t>(n) / kWordBits % kChunkWords;
  }
  static Word bit_of(std::int32_t n) {
    return Word{1} << (static_cast<std::uint32_t>(n) % kWordBits);
  }
  Word* writable(std::int32_t n) {
    const std::uint32_t chunk = chunk_of(n);
    return owned_[chunk] ? owned_[chunk]->data() : own(chunk);
  }
  // Gives a shared chunk words of its own, which can be changed.
  Word* own(std::uint32_t chunk);
  // Lets a chunk share `contents`, kClear or kSet. The caller sees to count_.
  void share(std::uint32_t chunk, const Chunk& contents);
  // Extends first_touched_..last_touched_ to the chunk.
  void touch(std::uint32_t chunk);
  // The highest number from n down to 1 whose bit differs from those of `skipped` (kClear or kSet),
  // or 0.
  [[nodiscard]] std::int32_t previous_unlike(const Chunk& skipped, std::int32_t n) const;

  std::vector<const Word*> directory_;         // one entry a chunk: its own words, or shared ones
  std::vector<std::unique_ptr<Chunk>> owned_;  // null for a chunk that is shared
  // Chunks outside first_touched_..last_touched_ are clear: what works on all bits skips them.
  std::uint32_t first_touched_ = UINT32_MAX;
  std::uint32_t last_touched_ = 0;
  std::int32_t highest_ = 0;
  std::int64_t count_ = 0;
};

// What the rules of the chains that a check walks (isam/pool/nodechain) have in common: the nodes
// lie from 1 to `last`, and none may be met twice. A rule is derived from it and adds is_sound().
class ListedOnce {
 public:
  explicit ListedOnce(std::int32_t last) : last_(last) { visited_.reset(last); }

  [[nodiscard]] bool may_name(std::int32_t node) const { return node >= 1 && node <= last_; }
  // Whether the node was asked about before.
  [[nodiscard]] bool has_met(std::int32_t node) { return visited_.set_bit(node); }

 private:
  std::int32_t last_;
  UsageMap visited_;
};

}  // namespace checker
