// What goes from the pool into a file in one piece.
#include <algorithm>
#include <cstring>

#include "isam/pool/pool.h"

namespace isam {
namespace {

using common::ByteRange;

constexpr std::int64_t kRecordsTogether = 4 * kSystemPage;  // blocks of an exclusive open

// The bytes of its file that a page has.
ByteRange range_of(const Buffer& page) {
  const Place place = bfmapaddr(page);
  return {place.offset, place.offset + static_cast<std::int64_t>(place.length)};
}

// Calls `use` with each part of these bytes of a data file that lies in one block, until it answers
// false: whether all were used.
template <typename Use>
bool each_part(ByteRange bytes, Use use) {
  while (!bytes.empty()) {
    const std::int64_t end = std::min(bytes.end, (bytes.start / kPageSize + 1) * kPageSize);
    if (!use(ByteRange{bytes.start, end})) return false;
    bytes.start = end;
  }
  return true;
}

}  // namespace

// The buffer of the page before (`step` -1) or behind (1) another one in the file, if that page is
// modified and idle; else null.
Buffer* Pool::delayed_beside(const Buffer& buffer, int step) const {
  if (buffer.block == (step < 0 ? kDataBlock : INT32_MAX)) return nullptr;
  Buffer* const beside = table_.find(buffer.block + step, buffer.file);
  const bool waits = beside != nullptr && (beside->flags & (kModified | kBusy)) == kModified;
  return waits ? beside : nullptr;
}

// Finds the modified idle pages that go out in one piece with this one: those beside each other in
// one part of the file, in their order. Gives the bytes that they have.
ByteRange Pool::find_beside(Buffer* buffer, std::int64_t part) {
  ByteRange pages = range_of(*buffer);
  const std::int64_t within = pages.start / part;
  beside_.clear();
  for (Buffer* at = buffer; at != nullptr;) {
    beside_.push_back(at);
    pages.start = range_of(*at).start;
    at = (pages.start - 1) / part == within ? delayed_beside(*at, -1) : nullptr;
    if (at != nullptr && range_of(*at).start / part != within) at = nullptr;
  }
  std::ranges::reverse(beside_);
  for (Buffer* at = buffer;;) {
    pages.end = range_of(*at).end;
    at = pages.end / part == within ? delayed_beside(*at, 1) : nullptr;
    if (at == nullptr) return pages;
    beside_.push_back(at);
  }
}

// The changed block that the pool has of a data file at this place; null for none.
Buffer* Pool::changed_block(const OpenPair& file, std::int64_t offset) const {
  if (offset / kPageSize > INT32_MAX) return nullptr;
  const auto block = static_cast<std::int32_t>(offset / kPageSize);
  Buffer* const buffer = table_.find(block | kDataBlock, &file);
  return buffer != nullptr && (buffer->flags & kModified) != 0 ? buffer : nullptr;
}

// Whether the file has these bytes as they are now: none waits in the pool or in a page.
bool Pool::is_in_file(const OpenPair& file, ByteRange bytes) const {
  if (waiting_.has(file, bytes.start, static_cast<std::size_t>(bytes.end - bytes.start))) {
    return false;
  }
  return each_part(bytes,
                   [&](ByteRange part) { return changed_block(file, part.start) == nullptr; });
}

// Puts these bytes of a data file, as they are now, behind those of run_: false when they cannot be
// read.
bool Pool::add_to_run(OpenPair& file, ByteRange bytes) {
  return each_part(bytes, [&](ByteRange part) {
    const auto size = static_cast<std::size_t>(part.end - part.start);
    run_.resize(run_.size() + size);
    const Bytes to = Bytes{run_}.last(size);
    const Buffer* const block = changed_block(file, part.start);
    if (block != nullptr) {
      std::memcpy(to.data(), block->page + part.start % kPageSize, size);
      return true;
    }
    if (file.data.map.read(file.data.fd, to, part.start) < 0) return false;
    waiting_.put_into(file, part.start, to);
    return true;
  });
}

// The bytes to be written so that the file gets whole records with these pages: with those that
// reach over either end, where the rest of them waits too.
ByteRange Pool::with_whole_records(const OpenPair& file, ByteRange pages) const {
  const std::int64_t slot = slot_size(file.geometry);
  const ByteRange before{pages.start / slot * slot, pages.start};
  const ByteRange behind{pages.end, (pages.end + slot - 1) / slot * slot};
  return {is_in_file(file, before) ? pages.start : before.start,
          is_in_file(file, behind) ? pages.end : behind.end};
}

// Writes a page, and in one piece with it the modified ones beside it within one page of the
// system, or a few where they have records: the system is slow with small writes into what was
// written in large pieces. An exclusive open writes whole records: a kill between two writes leaves
// none that is new in part.
int Pool::write_buffer(Buffer* buffer) {
  OpenPair& file = *buffer->file;
  const bool has_records = buffer->block < 0 && file.locks.exclusives > 0;
  const ByteRange pages = find_beside(buffer, has_records ? kRecordsTogether : kSystemPage);
  const ByteRange written = has_records ? with_whole_records(file, pages) : pages;
  if (beside_.size() == 1 && written == pages) return bfwrite(buffer);
  Place place = bfmapaddr(*buffer);
  place.offset = written.start;
  run_.clear();
  if (!add_to_run(file, {written.start, pages.start})) {
    place.offset = pages.start;
    run_.clear();
  }
  for (const Buffer* at : beside_) run_.insert(run_.end(), at->page, at->page + place.length);
  const std::size_t size = run_.size();
  if (!add_to_run(file, {pages.end, written.end})) run_.resize(size);
  const int result = write_page(file, place, run_);
  if (result != 0) {
    bfnote_failure(file);
    if (waits_on(file)) return -1;
  }
  for (Buffer* at : beside_) modified_out(at);
  return result;
}

}  // namespace isam
