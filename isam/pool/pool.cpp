#include "isam/pool/pool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/fatal.h"
#include "environment/settings.h"

namespace isam {
namespace {

// So many times ISAMBUFS may nodes take that an exclusive open has changed, of a large pool.
constexpr std::size_t kMostGrowth = 8;
constexpr std::size_t kLargePool = 4096;
static_assert(environment::kMostBuffers * kMostGrowth + kMostAdded < PageTable::kMostBuffers);
// Pages and bytes that are written together, as far as room for them is made at once.
constexpr std::size_t kMostBeside = 64;
constexpr std::size_t kMostTogether = 98304;
// A page released again before a pool's so-manieth part of others keeps its place in the order.
constexpr std::size_t kSoonPart = 16;

bool is_in_one_block(std::int64_t offset, std::size_t size) {
  return offset >= 0 && offset / kPageSize <= INT32_MAX &&
         static_cast<std::size_t>(offset % kPageSize) + size <= kPageSize;
}

// Whether any of these bytes of a data file are held back.
inline bool holds_back(const OpenPair& file, std::int64_t offset, std::size_t size) {
  const auto overlaps = [=](const DirectWrite& held) {
    return held.offset < offset + static_cast<std::int64_t>(size) &&
           offset < held.offset + static_cast<std::int64_t>(held.size);
  };
  return file.unwritten.held_count > 0 && std::ranges::any_of(file.unwritten.all_held(), overlaps);
}

// A block that was read from the file gets what is held back of it.
void put_held_into(const OpenPair& file, const Place& place, Byte* block) {
  const auto length = static_cast<std::int64_t>(place.length);
  for (const DirectWrite& held : file.unwritten.all_held()) {
    const std::int64_t start = held.offset - place.offset;  // in the block; below 0 before it
    const std::int64_t first = std::max<std::int64_t>(start, 0);
    const std::int64_t end = std::min(start + static_cast<std::int64_t>(held.size), length);
    if (first < end) {
      std::ranges::copy(held.bytes().subspan(static_cast<std::size_t>(first - start),
                                             static_cast<std::size_t>(end - first)),
                        block + first);
    }
  }
}

// False for a block that has to be read or is held.
bool copy_block(const Buffer& block, std::int64_t offset, Bytes to, Bytes behind) {
  if ((block.flags & (kValid | kBusy)) != kValid) return false;
  const ConstBytes from{block.page + offset % kPageSize, to.size() + behind.size()};
  common::copy_bytes(from.first(to.size()), to.data());
  common::copy_bytes(from.subspan(to.size()), behind.data());
  return true;
}

}  // namespace

std::unique_ptr<Pool> the_pool;

Pool& make_pool() {
  the_pool = std::make_unique<Pool>();
  return *the_pool;
}

Pool::Pool()
    : most_buffers_(static_cast<std::size_t>(environment::number("ISAMBUFS")) + kMostAdded),
      order_(*this) {
  const std::size_t most = most_buffers_;
  const std::size_t count = most - kMostAdded;
  const auto map = [&](std::size_t spare) {
    buffs_ = common::make_arena<Buffer>(count, spare);
    pages_ = common::make_arena<Byte>(count * kPageStride, spare * kPageStride);
    return buffs_ != nullptr && pages_ != nullptr;
  };
  least_buffers_ = count;
  growth_.most = count < kLargePool ? 0 : count * kMostGrowth;
  if (growth_.most == 0 || !map(growth_.most - count)) {
    growth_.most = 0;
    if (!map(kMostAdded)) common::error("cannot allocate buffers");
  }
  if (!table_.reserve(buffs_.get(), most) || !add_buffers(count)) {
    common::error("cannot allocate buffers");
  }
  to_write_.reserve(most);
  beside_.reserve(kMostBeside);
  run_.reserve(kMostTogether);
}

// Puts buffers to use that have been spare: false without memory, with the pool as it was.
bool Pool::add_buffers(std::size_t count) {
  const std::size_t all = std::min(nbuffs_ + count, most_buffers_);
  if (!nodes_.resize(all) || !data_blocks_.resize(all)) return false;
  for (; nbuffs_ < all; ++nbuffs_) {
    buffs_[nbuffs_].page = pages_.get() + nbuffs_ * kPageStride;
    put_in_order(&buffs_[nbuffs_]);
  }
  return true;
}

void Pool::put_in_order(Buffer* buffer) {
  buffer->released = ++releases_;
  (buffer->block < 0 ? data_blocks_ : nodes_).released(buffer);
}

// Gives an idle buffer to another page of the current file.
void Pool::reuse(Buffer* buffer, std::int32_t block) {
  if (buffer->file != nullptr) table_.erase(buffer);
  buffer->block = block;
  buffer->file = filep;
  buffer->flags = 0;
  buffer->released = kOutOfOrder;
  table_.insert(buffer);
}

Buffer* Pool::bfgetblk(std::int32_t block) {
  Buffer* buffer = table_.find(block, filep);
  if (buffer != nullptr) {
    // The page's memory is fetched while the processor still waits for the buffer's flags.
    const Byte* const page = page_of(buffer);
    common::prefetch(page);
    common::prefetch(page + 64);
    common::prefetch(page + 512);
  } else {
    buffer = victim();
    if (buffer == nullptr) return nullptr;
    reuse(buffer, block);
  }
  if ((buffer->flags & kBusy) != 0) common::error("buffer not free");
  const std::uint64_t generation =
      block < 0 ? filep->cached.data_generation : filep->cached.generation;
  if (buffer->generation != generation) {
    if ((buffer->flags & kModified) == 0) buffer->flags = 0;
    buffer->generation = generation;
  }
  buffer->flags |= kBusy;
  return buffer;
}

void Pool::expect(std::int32_t node) const {
  const Buffer* const buffer = table_.find(node, filep);
  if (buffer == nullptr) return;
  common::prefetch(buffer);
  common::prefetch(page_of(buffer), kPageSize);
}

bool Pool::load(Buffer& buffer) {
  const Place place = bfmapaddr(buffer);
  OpenPair& file = *buffer.file;
  common::FileMap& map = map_of(file, place.kind);
  const ssize_t got =
      window_of(place.kind).read(place.fd, map, {buffer.page, place.length}, place.offset);
  const bool whole = got == static_cast<ssize_t>(place.length);
  if (got < 0 || (!whole && place.kind == FileKind::kIndex)) {
    failed_system(got < 0 ? errno : 0, Operation::kRead, place.kind);
    failed_unless_set(kCorrupted);
    return false;
  }
  if (!whole) std::memset(buffer.page + got, 0, place.length - static_cast<std::size_t>(got));
  if (place.kind == FileKind::kData) {
    waiting_.put_into(file, place.offset, {buffer.page, place.length});
    put_held_into(file, place, buffer.page);
  }
  if (place.kind == FileKind::kIndex) {
    buffer.used = common::ldword(buffer.page) & 0x7FFF;
    buffer.node_type = buffer.page[node_type_offset(buffer.file->geometry.idxsize)];
    buffer.level = buffer.page[node_level_offset(buffer.file->geometry.idxsize)] & 0x7F;
  }
  has_new_bytes(&buffer);
  buffer.flags |= kValid;
  return true;
}

// Another process has changed the file, but perhaps not this page.
bool Pool::is_as_before(Buffer& buffer) {
  if ((buffer.flags & kModified) != 0) return false;
  const Place place = bfmapaddr(buffer);
  common::FileMap& map = map_of(*buffer.file, place.kind);
  if (!map.has({buffer.page, place.length}, place.offset)) return false;
  buffer.generation = buffer.file->cached.generation;
  return true;
}

Buffer* Pool::bfread(std::int32_t block) {
  // Bytes that wait to be written past the pool belong into the block that is read.
  if (block < 0 && !filep->unwritten.direct.empty() && pool_direct() != 0) return nullptr;
  Buffer* buffer = bfgetblk(block);
  if (buffer == nullptr) return nullptr;
  if ((buffer->flags & kValid) == 0 && !load(*buffer)) {
    bfrelease(buffer);
    return nullptr;
  }
  return buffer;
}

// The buffer of a block of the current data file as it is now; null for none.
const Buffer* Pool::data_block(std::int64_t block) const {
  const Buffer* const buffer = table_.find(static_cast<std::int32_t>(block) | kDataBlock, filep);
  return buffer != nullptr && buffer->generation == filep->cached.data_generation ? buffer
                                                                                  : nullptr;
}

// Whether the pool has no block of these bytes of the current data file as it is now.
bool Pool::has_no_block(std::int64_t offset, std::size_t size) const {
  const std::int64_t last = (offset + static_cast<std::int64_t>(size) - 1) / kPageSize;
  for (std::int64_t block = offset / kPageSize; block <= last; ++block) {
    if (block > INT32_MAX || data_block(block) != nullptr) return false;
  }
  return true;
}

// Whether bytes of the current data file can be taken by read_data(): the mapping of the file
// covers them, and the pool has none of their blocks as they are now, or no changed block at all.
bool Pool::only_in_file(std::int64_t offset, std::size_t size) const {
  if (offset < 0 || !filep->data.map.covers(size, offset)) return false;
  if (holds_back(*filep, offset, size)) return false;
  return filep->unwritten.data_blocks == 0 || has_no_block(offset, size);
}

// Reads bytes of the current data file that the pool has no block of: false when the file has not
// all of them.
bool Pool::read_data(Bytes to, std::int64_t offset) {
  if (to.empty()) return true;
  PairFile& data = filep->data;
  if (data.map.read(data.fd, to, offset) != static_cast<ssize_t>(to.size())) return false;
  waiting_.put_into(*filep, offset, to);
  return true;
}

bool Pool::copy_data(std::int64_t offset, Bytes to, Bytes behind) {
  OpenPair& file = *filep;
  const std::size_t size = to.size() + behind.size();
  // Without a modified block the pool has nothing that is not in the file: no look into it is
  // needed.
  const bool map_will_do =
      file.unwritten.data_blocks == 0 && offset >= 0 && file.data.map.covers(size, offset);
  if (!file.unwritten.direct.empty() || holds_back(file, offset, size)) return false;
  if (!map_will_do && is_in_one_block(offset, size)) {
    const Buffer* const block = data_block(offset / kPageSize);
    if (block != nullptr) return copy_block(*block, offset, to, behind);
    if (!file.data.map.covers(size, offset)) return false;
  } else if (!map_will_do && !only_in_file(offset, size)) {
    return false;
  }
  if (waiting_.has(file, offset, size)) {
    return read_data(to, offset) &&
           read_data(behind, offset + static_cast<std::int64_t>(to.size()));
  }
  const auto first = static_cast<ssize_t>(to.size());
  if (data_window_.read(file.data.fd, file.data.map, to, offset) != first) return false;
  return behind.empty() || file.data.map.read(file.data.fd, behind, offset + first) ==
                               static_cast<ssize_t>(behind.size());
}

bool Pool::copy_byte(std::int64_t offset, Byte& to) const {
  OpenPair& file = *filep;
  const bool is_only_in_file = offset >= 0 && file.unwritten.data_blocks == 0 &&
                               file.unwritten.direct.empty() && !holds_back(file, offset, 1) &&
                               !waiting_.has(file, offset, 1);
  if (!is_only_in_file) return false;
  if (file.data.map.look({&to, 1}, offset)) return true;
  to = 0;
  const bool may_be_behind_end = file.data.map.known_size() <= offset &&
                                 offset / kPageSize <= INT32_MAX && data_is_as_found(file);
  return may_be_behind_end && data_end(file) > 0 && data_end(file) <= offset;
}

// Whether a shared open's current call has changed nothing of the data file yet.
bool Pool::data_is_as_found(const OpenPair& file) {
  return file.locks.exclusives == 0 && !file.call.spilled && file.unwritten.data_blocks == 0;
}

// Where the data file ended when the current call began, asked for once; 0 when that cannot be
// found out.
std::int64_t Pool::data_end(OpenPair& file) {
  std::int64_t& end = file.call.data_end;
  if (end > 0 || common::find_end(file.data.fd, end) != 0) return end;
  // An end in the middle of a block is what a process that was killed has left. Records there go
  // through the pool, which writes the block whole.
  if (end % kPageSize == 0) file.data.map.written(end);
  return end;
}

Buffer* Pool::bfgetclr(std::int32_t block) {
  Buffer* buffer = bfgetblk(block);
  if (buffer == nullptr) return nullptr;
  std::memset(buffer->page, 0, kPageStride);
  buffer->used = 0;
  buffer->node_type = buffer->level = 0;
  modified(buffer);
  return buffer;
}

// The nodes next to a root are released by every call: they keep the place that they have.
inline void Pool::used(Buffer* buffer) {
  const bool is_soon = ++releases_ - buffer->released <= nbuffs_ / kSoonPart;
  if (buffer->released == kOutOfOrder || !is_soon) put_in_order(buffer);
}

void Pool::bfrelease(Buffer* buffer) {
  if ((buffer->flags & kBusy) == 0) common::error("buffer not busy");
  buffer->flags = static_cast<std::uint8_t>(buffer->flags & ~kBusy);
  if ((buffer->flags & kModified) != 0 && buffer->block >= 0) {
    common::stword(buffer->used, buffer->page);
    buffer->page[node_type_offset(buffer->file->geometry.idxsize)] = buffer->node_type;
    buffer->page[node_level_offset(buffer->file->geometry.idxsize)] = buffer->level;
  }
  used(buffer);
}

// These stand here so that they are compiled in one with what they call.

void PageHold::release_page(Buffer* buffer) { the_pool->bfrelease(buffer); }

inline bool PageStamp::is_there() const {
  return buffer_->version == version_ && buffer_->file == filep &&
         (buffer_->flags & (kValid | kBusy)) == kValid;
}

bool PageStamp::stands() const {
  if (buffer_ == nullptr || buffer_->generation != filep->cached.generation || !is_there()) {
    return false;
  }
  the_pool->used(buffer_);
  return true;
}

bool PageStamp::stands_again() const {
  if (buffer_ == nullptr || !is_there()) return false;
  if (buffer_->generation != filep->cached.generation && !the_pool->is_as_before(*buffer_)) {
    return false;
  }
  the_pool->used(buffer_);
  return true;
}

PageHold bfread(std::int32_t node) {
  if (node < 1) {
    failed(kCorrupted);
    return {};
  }
  return PageHold{pool().bfread(node)};
}

}  // namespace isam
