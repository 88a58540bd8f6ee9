// Which buffer of the pool is used again when a page needs one.
#include <algorithm>
#include <utility>

#include "common/fatal.h"
#include "isam/pool/mark.h"
#include "isam/pool/pool.h"

namespace isam {
namespace {

// An unused node keeps its buffer about so many times longer than an unused data block.
constexpr std::uint64_t kNodeLifetimes = 64;
// So many changed data blocks wait for those beside them in their files, and no more than a part of
// the pool.
constexpr std::size_t kMostWaiting = 64;
constexpr std::size_t kWaitingPart = 64;

}  // namespace

// Whether a buffer can be given another page before the call ends: its page was not changed, or the
// pair is open exclusively, no write of it has failed and the page is not of those kept.
bool Pool::may_go(const Buffer& buffer) const {
  if ((buffer.flags & kModified) == 0) return true;
  if (buffer.file->locks.exclusives == 0 || buffer.file->unwritten.lost.error != 0) return false;
  if (kept_.empty() || buffer.block >= 0 || buffer.file != filep) return true;
  const std::int64_t start = bfmapaddr(buffer).offset;
  return start >= kept_.end || start + std::int64_t{kPageSize} <= kept_.start;
}

// A buffer that was left out because it was kept gets its place in the order again.
common::ByteRange Pool::keep_blocks(common::ByteRange bytes) {
  const common::ByteRange before = std::exchange(kept_, bytes);
  for (std::int64_t at = before.start; at < before.end; at = (at / kPageSize + 1) * kPageSize) {
    Buffer* const buffer = changed_block(*filep, at);
    if (buffer != nullptr && is_out_of_order(*buffer)) put_in_order(buffer);
  }
  return before;
}

// The buffer of one kind (nodes or data blocks) that was released least recently and may go; null
// when none may. A buffer that may not go is taken out of the order, so that no later search meets
// it again; modified_out() puts it back.
Buffer* Pool::oldest_that_may_go(LruRing& order) {
  Buffer* buffer = order.oldest();
  for (; buffer != nullptr && !may_go(*buffer); buffer = order.oldest()) {
    buffer->released = kOutOfOrder;
  }
  return buffer;
}

// Called when no buffer may go, and so all idle ones are out of the order. Puts these back, as they
// follow each other in `buffs_`, and gives the first node, or the first data block when no node is
// idle. Null when all buffers are busy.
Buffer* Pool::oldest_of_all() {
  for (std::size_t i = 0; i < nbuffs_; ++i) {
    Buffer& buffer = buffs_[i];
    if (is_out_of_order(buffer)) put_in_order(&buffer);
  }
  Buffer* const node = nodes_.oldest();
  return node != nullptr ? node : data_blocks_.oldest();
}

// Whether a data block has changed, and few others have: it is written with those that come to
// stand beside it.
bool Pool::waits_for_neighbours(const Buffer& block) const {
  return (block.flags & kModified) != 0 &&
         modified_blocks_ < std::min(kMostWaiting, nbuffs_ / kWaitingPart);
}

// The buffer to be reused: the one that was released least recently. A node counts as released
// later than it was, for it serves many records, a data block few. Where the pool can grow for
// changed nodes, a data block goes before them, for the pool never grows in place of a data block.
//
// Pages that a call changed keep their buffers until the call ends, so that its changes can be
// taken back, or written in their order: the pool grows for them. Null with 116 when the system has
// no memory for that. When the pool may grow no more, one of them goes all the same. (Changed pages
// of an exclusive open go as others do, as long as they can be written.)
Buffer* Pool::choose_victim() {
  Buffer* const node = oldest_that_may_go(nodes_);
  Buffer* const block = oldest_that_may_go(data_blocks_);
  if (node != nullptr && block != nullptr) {
    if (waits_for_neighbours(*block)) return node;
    if ((node->flags & kModified) != 0 && may_grow()) return block;
    const std::uint64_t head_start = kNodeLifetimes * nbuffs_;
    return block->released < node->released + head_start ? block : node;
  }
  if (node != nullptr || block != nullptr) return node != nullptr ? node : block;
  Buffer* const waiting = oldest_of_all();
  if (waiting == nullptr) common::error("no more buffers");
  if (nbuffs_ >= most_buffers_) return waiting;
  Buffer* const added = &buffs_[nbuffs_];
  if (add_buffers(std::min(nbuffs_, kMostAdded / 8))) return added;
  if (waiting->file->locks.exclusives > 0) return waiting;
  failed(kNoMemory);
  return nullptr;
}

// Writes a page whose buffer is needed: 0, or -1 when it has to stay. The failure belongs to that
// page, not to the call that needs the buffer: it is kept in the open pair, and told later.
int Pool::spill(Buffer* buffer) {
  const KeepError keep;
  OpenPair& file = *buffer->file;
  file.call.spilled = true;
  if (file.locks.exclusives > 0 && is_missing(file.mark.state) && set_mark(file) != 0) {
    bfnote_failure(file);
    return -1;
  }
  return write_buffer(buffer);
}

Buffer* Pool::victim() {
  for (;;) {
    Buffer* const buffer = choose_victim();
    if (buffer == nullptr || (buffer->flags & kModified) == 0) return buffer;
    const bool forced = !may_go(*buffer);
    Buffer* const another = forced || buffer->block < 0 ? nullptr : one_more();
    if (another != nullptr) return another;
    if (spill(buffer) == 0) return buffer;
    // A page that will be tried again keeps its buffer, and another buffer is looked for. Given up
    // is a page that will not be tried again, or has to go because the pool can grow no more.
    if (!forced && (buffer->flags & kModified) != 0) continue;
    modified_out(buffer);
    buffer->file->unwritten.pages_lost = true;
    return buffer;
  }
}

}  // namespace isam
