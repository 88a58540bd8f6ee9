// pagetable: finds the buffer of a page of the pool.
//
// Keeps   a look-up mostly reads one cache line of the table and the buffer that it finds. The
//         table's slots are small, so that much of it stays in the processor's caches. Of a large
//         pool's first files the nodes with low numbers have an array instead, four bytes a node
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "common/arena.h"
#include "isam/pool/buffers.h"

namespace isam {

// A table with open addressing. At most half of its slots are taken, so every search ends. A buffer
// must not change its file or block while it is in the table.
class PageTable {
 public:
  static constexpr std::size_t kMostBuffers = (std::size_t{1} << 20) - 1;
  // Makes an empty table for the `count` buffers that `buffers` points to: false without memory.
  [[nodiscard]] bool reserve(Buffer* buffers, std::size_t count) {
    buffers_ = buffers;
    arrays_begin_ = count >= kLargePool;
    return resize(count);
  }
  // Makes it one for so many buffers, which are all that it has now or more: false without memory,
  // with the table as it was.
  [[nodiscard]] bool resize(std::size_t count) {
    PageTable other;
    const std::size_t slots = std::bit_ceil(count * 2);
    if (slots == mask_ + 1) return true;
    other.slots_ = common::make_arena<Slot>(slots);
    other.mask_ = slots - 1;
    if (other.slots_ == nullptr) return false;
    for (std::size_t at = 0; slots_ != nullptr && at <= mask_; ++at) {
      if (slots_[at].buffer != kNone) other.put(slots_[at]);
    }
    slots_ = std::move(other.slots_);
    mask_ = other.mask_;
    return true;
  }
  // The buffer of a page; null when the table has none.
  [[nodiscard]] Buffer* find(std::int32_t block, const OpenPair* file) const {
    const std::uint32_t tag = tag_of(file);
    if (const NodeArray& array = arrays_[tag % kArrays]; array.file == file && is_low(block)) {
      const std::uint32_t number = array.buffers[static_cast<std::size_t>(block)];
      return number == kNone ? nullptr : &buffers_[number - 1];
    }
    for (std::size_t at = home(block, tag);; at = (at + 1) & mask_) {
      const Slot slot = slots_[at];
      if (slot.buffer == kNone) return nullptr;
      if (slot.block != block || slot.file_tag != tag) continue;
      Buffer* const buffer = &buffers_[slot.buffer - 1];
      if (buffer->file == file) return buffer;
    }
  }
  // Adds a buffer, whose page the table does not have yet.
  void insert(const Buffer* buffer) {
    begin_array(*buffer);
    if (std::uint32_t* const place = place_in_array(*buffer)) {
      *place = number_of(buffer);
      return;
    }
    constexpr std::uint32_t kTags = (1U << kTagBits) - 1;
    put({buffer->block, tag_of(buffer->file) & kTags,
         number_of(buffer) & (UINT32_MAX >> kTagBits)});
  }
  // Removes a buffer that is in the table.
  void erase(const Buffer* buffer) {
    if (std::uint32_t* const place = place_in_array(*buffer)) {
      *place = kNone;
      return;
    }
    const std::uint32_t number = number_of(buffer);
    std::size_t gap = home(buffer->block, tag_of(buffer->file));
    while (slots_[gap].buffer != number) gap = (gap + 1) & mask_;
    // No search for what stands further on may end at the gap. A slot whose search begins behind
    // the gap stays; any other one moves into the gap, and leaves a new one.
    for (std::size_t at = gap;;) {
      at = (at + 1) & mask_;
      const Slot& slot = slots_[at];
      if (slot.buffer == kNone) break;
      if (((at - home(slot.block, slot.file_tag)) & mask_) < ((at - gap) & mask_)) continue;
      slots_[gap] = slot;
      gap = at;
    }
    slots_[gap] = {};
  }

 private:
  static constexpr int kTagBits = 12;
  static_assert(kMostBuffers == UINT32_MAX >> kTagBits);

  struct Slot {
    std::int32_t block;
    std::uint32_t file_tag : kTagBits;  // from the address of the OpenPair; two may have the same
    std::uint32_t buffer : 32 - kTagBits;  // number from 1
  };
  // The buffers of a file's nodes, by node number.
  struct NodeArray {
    const OpenPair* file = nullptr;
    common::Arena<std::uint32_t> buffers;
  };
  static constexpr std::uint32_t kNone = 0;
  static constexpr std::size_t kLargePool = 4096;  // buffers; the slots of fewer are cached
  static constexpr std::size_t kArrays = 8;
  static constexpr std::int32_t kLowNodes = 1'000'000;
  // 2^64 divided by the golden ratio: the product's high bits differ for neighbouring numbers.
  static constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15U;

  [[nodiscard]] static bool is_low(std::int32_t block) { return block >= 0 && block < kLowNodes; }
  // Where the array of a buffer's file has its page; null when that is in the slots.
  [[nodiscard]] std::uint32_t* place_in_array(const Buffer& buffer) {
    NodeArray& array = arrays_[tag_of(buffer.file) % kArrays];
    if (array.file != buffer.file || !is_low(buffer.block)) return nullptr;
    return &array.buffers[static_cast<std::size_t>(buffer.block)];
  }
  // Gives a file its array with its first node, or never: then other nodes may be in the slots.
  void begin_array(const Buffer& first) {
    NodeArray& array = arrays_[tag_of(first.file) % kArrays];
    if (array.file != nullptr || !is_low(first.block) || !arrays_begin_) return;
    array.buffers = common::make_arena<std::uint32_t>(0, kLowNodes);
    arrays_begin_ = array.buffers != nullptr;
    if (arrays_begin_) array.file = first.file;
  }
  void put(const Slot& slot) {
    std::size_t at = home(slot.block, slot.file_tag);
    while (slots_[at].buffer != kNone) at = (at + 1) & mask_;
    slots_[at] = slot;
  }
  [[nodiscard]] std::uint32_t number_of(const Buffer* buffer) const {
    return static_cast<std::uint32_t>(buffer - buffers_ + 1);
  }
  [[nodiscard]] static std::uint32_t tag_of(const OpenPair* file) {
    const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(file));
    return static_cast<std::uint32_t>(address * kSpread >> (64 - kTagBits));
  }
  [[nodiscard]] std::size_t home(std::int32_t block, std::uint32_t tag) const {
    const std::uint64_t name = std::uint64_t{tag} << 32 | static_cast<std::uint32_t>(block);
    return (name * kSpread >> 32) & mask_;
  }

  Buffer* buffers_ = nullptr;
  common::Arena<Slot> slots_;
  std::size_t mask_ = 0;
  bool arrays_begin_ = false;  // files without one may still get one
  std::array<NodeArray, kArrays> arrays_;
};

}  // namespace isam
