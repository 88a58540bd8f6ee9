#include <algorithm>
#include <new>

#include "common/arena.h"
#include "common/memory.h"
#include "isam/pool/pool.h"

namespace isam {
namespace {

constexpr std::size_t kStep = 4096;          // buffers that room is made for at a time
constexpr std::size_t kNotAsked = 65536;     // refusals until the system is asked again
constexpr std::size_t kEasedSeldom = 64;     // calls of bfease() for each look at the memory
constexpr std::int64_t kPartOfMemory = 8;    // the pool takes no more of all memory
constexpr std::int64_t kPartAvailable = 8;   // so much of it remains available, or nothing is taken
constexpr std::int64_t kPartTooLittle = 16;  // with less available, what was taken is given back

bool has_memory_for(std::size_t buffers) {
  const auto bytes = static_cast<std::int64_t>(buffers * (kPageStride + sizeof(Buffer)));
  const common::Memory memory = common::find_memory();
  return bytes <= memory.all / kPartOfMemory && memory.available > memory.all / kPartAvailable;
}

bool is_memory_short() {
  const common::Memory memory = common::find_memory();
  return memory.available < memory.all / kPartTooLittle;
}

}  // namespace

// Room for more buffers: false when they have all that they may take, or without memory.
bool Pool::more_room() {
  if (nbuffs_ >= growth_.most) return false;
  if (growth_.not_asked > 0) {
    --growth_.not_asked;
    return false;
  }
  const std::size_t all = std::min(nbuffs_ + kStep, growth_.most);
  const auto reserve = [&] {
    try {
      to_write_.reserve(all);
    } catch (const std::bad_alloc&) {
      return false;
    }
    return nodes_.resize(all) && data_blocks_.resize(all) && table_.resize(all);
  };
  if (!has_memory_for(all) || !reserve()) {
    growth_.not_asked = kNotAsked;
    return false;
  }
  common::expect_huge_pages(&pages_[nbuffs_ * kPageStride], (all - nbuffs_) * kPageStride);
  growth_.room = all;
  return true;
}

// A buffer that serves no page, in place of one whose changed node would have to be written; null
// when there is none.
Buffer* Pool::one_more() {
  if (nbuffs_ >= growth_.room && !more_room()) return nullptr;
  Buffer* const buffer = &buffs_[nbuffs_];
  buffer->page = &pages_[nbuffs_ * kPageStride];
  ++nbuffs_;
  return buffer;
}

// The pool has the buffers again that ISAMBUFS says, unless others have something unwritten.
void Pool::give_back() {
  const auto added = [this] {
    return std::span{&buffs_[least_buffers_], nbuffs_ - least_buffers_};
  };
  const auto is_needed = [](const Buffer& buffer) {
    return (buffer.flags & (kModified | kBusy)) != 0;
  };
  if (nbuffs_ <= least_buffers_ || std::ranges::any_of(added(), is_needed)) return;
  for (Buffer& buffer : added()) {
    if (buffer.file != nullptr) table_.erase(&buffer);
    buffer = Buffer{};
  }
  common::drop_bytes(added().data(), added().size_bytes());
  common::drop_bytes(&pages_[least_buffers_ * kPageStride], added().size() * kPageStride);
  nbuffs_ = least_buffers_;
  growth_.room = 0;
  // Smaller tables; those that there are will do without memory.
  static_cast<void>(nodes_.resize(nbuffs_) && data_blocks_.resize(nbuffs_) &&
                    table_.resize(most_buffers_));
}

void Pool::bfease(bool at_once) {
  if (!at_once) {
    OpenPair* const waiting_file = waiting_.waiting_file();
    if (nbuffs_ <= least_buffers_ && waiting_file == nullptr) return;
    if (++growth_.eased % kEasedSeldom != 0 || !is_memory_short()) return;
    growth_.not_asked = kNotAsked;
    for (std::size_t i = least_buffers_; i < nbuffs_; ++i) {
      if ((buffs_[i].flags & (kModified | kBusy)) == kModified) spill(&buffs_[i]);
    }
    if (waiting_file != nullptr) write_waiting(*waiting_file);
  }
  give_back();
  waiting_.give_back();
}

}  // namespace isam
