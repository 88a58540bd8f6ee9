#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "common/fatal.h"
#include "common/io.h"
#include "isam/pool/mark.h"
#include "isam/pool/pool.h"

namespace isam {
namespace {

// Whether an exclusive open changes one record after another of the same blocks, which wait for
// each other in the pool. Notes where this change is.
bool is_one_of_many(OpenPair& file, std::int64_t offset) {
  const std::int64_t distance = offset - std::exchange(file.unwritten.last_written, offset);
  return file.locks.exclusives > 0 &&
         std::abs(distance) < std::int64_t{kPageSize} + file.geometry.reclen;
}

// False without memory.
bool make_room(DirectWrite& direct, std::size_t size) {
  try {
    if (direct.room.size() < 2 * size) direct.room.resize(2 * size);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// Room for one node more. As many as a call seldom changes have theirs from the first one on; false
// behind them, or without memory.
bool make_room(Unwritten& unwritten) {
  constexpr std::size_t kMost = 8;
  try {
    if (unwritten.before.empty()) unwritten.before.resize(kMost);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return unwritten.before_used < unwritten.before.size();
}

bool are_there(ConstBytes there, ConstBytes first, ConstBytes second) {
  return std::memcmp(first.data(), there.data(), first.size()) == 0 &&
         std::memcmp(second.data(), there.data() + first.size(), second.size()) == 0;
}

}  // namespace

void bfnote_failure(OpenPair& file) {
  if (file.unwritten.failed.error == 0) file.unwritten.failed = {iserrno, iserrio};
  if (waits_on(file) && file.unwritten.lost.error == 0) file.unwritten.lost = {iserrno, iserrio};
}

// Only commits need it, and exclusive opens have none. A page that finds no room is read from the
// file by the commit.
void Pool::keep_before(Buffer* buffer) {
  OpenPair& file = *buffer->file;
  if (file.locks.exclusives > 0 || (buffer->flags & kModified) != 0) return;
  Unwritten& unwritten = file.unwritten;
  if (unwritten.pages == nullptr) unwritten.before_used = 0;
  if (!make_room(unwritten)) return;
  std::memcpy(unwritten.before[unwritten.before_used].data(), buffer->page,
              bfmapaddr(*buffer).length);
  modified(buffer);
  buffer->before = ++unwritten.before_used;
}

void Pool::modified(Buffer* buffer) {
  buffer->file->call.page_changed = true;
  has_new_bytes(buffer);
  if ((buffer->flags & kModified) != 0) return;
  buffer->flags |= kValid | kModified;
  Buffer*& head = buffer->file->unwritten.pages;
  buffer->modified_previous = nullptr;
  buffer->modified_next = head;
  if (head != nullptr) head->modified_previous = buffer;
  head = buffer;
  if (buffer->block < 0) {
    ++buffer->file->unwritten.data_blocks;
    ++modified_blocks_;
  }
}

// Writes bytes to a data file, and into the pages that wait for it.
int Pool::write_data(OpenPair& file, std::int64_t offset, ConstBytes bytes) {
  data_window_.overwritten(file.data.fd, offset, bytes.size());
  if (common::write_at(file.data.fd, bytes, offset) != 0) {
    return failed_system(errno, Operation::kWrite, FileKind::kData);
  }
  waiting_.written(file, offset, bytes);
  return 0;
}

int Pool::write_page(OpenPair& file, const Place& place, ConstBytes bytes) {
  if (place.kind == FileKind::kData) return write_data(file, place.offset, bytes);
  index_window_.overwritten(place.fd, place.offset, bytes.size());
  if (common::write_at(place.fd, bytes, place.offset) == 0) return 0;
  return failed_system(errno, Operation::kWrite, place.kind);
}

int Pool::bfwrite(Buffer* buffer) {
  if ((buffer->flags & kBusy) != 0) bfrelease(buffer);
  const Place place = bfmapaddr(*buffer);
  const int result = write_page(*buffer->file, place, {buffer->page, place.length});
  if (result == 0 || !waits_on(*buffer->file)) modified_out(buffer);
  if (result != 0) bfnote_failure(*buffer->file);
  return result;
}

// The file's modified idle pages. Good until it is asked again.
const std::vector<Buffer*>& Pool::modified_pages(const OpenPair& file) {
  to_write_.clear();
  for (Buffer* at = file.unwritten.pages; at != nullptr; at = at->modified_next) {
    if ((at->flags & kBusy) == 0) to_write_.push_back(at);
  }
  return to_write_;
}

// The pool gives up what it has of these bytes unchanged, and they are mapped where they are not
// yet: they are to be written past the pool.
void Pool::leave_to_file(std::int64_t offset, std::size_t size) {
  OpenPair& file = *filep;
  if (!file.data.map.covers(size, offset)) file.data.map.look_again(file.data.fd);
  const std::int64_t last = (offset + static_cast<std::int64_t>(size) - 1) / kPageSize;
  for (std::int64_t block = std::max<std::int64_t>(offset, 0) / kPageSize; block <= last; ++block) {
    Buffer* const buffer = table_.find(static_cast<std::int32_t>(block) | kDataBlock, filep);
    if (buffer != nullptr && (buffer->flags & (kModified | kBusy)) == 0) buffer->generation = 0;
  }
}

// The end of the data file where these bytes reach beyond it and begin before it, so that a commit
// can lengthen it by writing them. 0 where they do not, and where they are to go through the pool:
// it has changed blocks, or the mapping has not all that stands before the end.
std::int64_t Pool::end_within(std::int64_t offset, std::size_t size) {
  OpenPair& file = *filep;
  const common::FileMap& map = file.data.map;
  const std::int64_t behind = offset + static_cast<std::int64_t>(size);
  const bool may_be = offset >= 0 && (behind - 1) / kPageSize <= INT32_MAX &&
                      map.known_size() < behind && !file.call.may_hold && data_is_as_found(file);
  if (!may_be) return 0;
  const std::int64_t end = data_end(file);
  const bool is_within = offset < end && end < behind;
  return is_within && map.covers(static_cast<std::size_t>(end - offset), offset) ? end : 0;
}

// Takes bytes that are better written by themselves than with their blocks; false when they are
// not, and are to go through the pool.
bool Pool::take_direct(std::int64_t offset, ConstBytes first, ConstBytes second) {
  OpenPair& file = *filep;
  DirectWrite& direct = file.unwritten.direct;
  const std::size_t size = first.size() + second.size();
  // One change of a call at the most: a second one goes through the pool, and takes the first with
  // it.
  const bool waits_for_others = is_one_of_many(file, offset) && !waiting_.serves(file);
  if (!direct.empty() || waits_for_others) return false;
  bool is_only_in_file = only_in_file(offset, size);
  if (!is_only_in_file && file.call.may_hold) {
    leave_to_file(offset, size);
    is_only_in_file = only_in_file(offset, size);
  }
  const std::int64_t file_end = is_only_in_file ? 0 : end_within(offset, size);
  if ((!is_only_in_file && file_end == 0) || !make_room(direct, size)) return false;
  // A commit that fails puts them back.
  const Bytes before{direct.room.data() + size, size};
  const std::size_t there = file_end > 0 ? static_cast<std::size_t>(file_end - offset) : size;
  if (!read_data(before.first(there), offset)) return false;
  std::ranges::fill(before.subspan(there), Byte{0});
  if (are_there(before, first, second)) return true;
  // An unchanged block that the pool may have of them is good no more.
  if (file.unwritten.data_blocks == 0) file.cached.data_generation = bfgeneration();
  std::memcpy(direct.room.data(), first.data(), first.size());
  std::memcpy(direct.room.data() + first.size(), second.data(), second.size());
  direct.offset = offset;
  direct.size = size;
  direct.file_end = file_end;
  file.call.page_changed = true;
  return true;
}

int Pool::write_direct(OpenPair& file) {
  DirectWrite& direct = file.unwritten.direct;
  if (direct.empty()) return 0;
  if (write_data(file, direct.offset, direct.bytes()) != 0) return -1;
  direct.clear();
  return 0;
}

bool Pool::hold_direct() {
  Unwritten& unwritten = filep->unwritten;
  try {
    if (unwritten.held_count == unwritten.held.size()) unwritten.held.emplace_back();
  } catch (const std::bad_alloc&) {
    return false;
  }
  std::swap(unwritten.held[unwritten.held_count++], unwritten.direct);
  unwritten.direct.clear();
  return true;
}

int Pool::write_held() {
  OpenPair& file = *filep;
  const std::span<const DirectWrite> held = file.unwritten.all_held();
  file.unwritten.held_count = 0;
  for (std::size_t i = 0; i < held.size(); ++i) {
    const DirectWrite& write = held[i];
    data_window_.overwritten(file.data.fd, write.offset, write.size);
    if (common::write_at(file.data.fd, write.bytes(), write.offset) == 0) continue;
    failed_system(errno, Operation::kWrite, FileKind::kData);
    for (const DirectWrite& written : held.first(i + 1)) {
      static_cast<void>(common::write_at(file.data.fd, written.before(), written.offset));
    }
    return -1;
  }
  return 0;
}

// What may not wait is written. What cannot be written now waits in the pool, as other changes do,
// and is told like those.
void Pool::write_direct_or_pool() {
  DirectWrite& direct = filep->unwritten.direct;
  if (direct.empty()) return;
  if (growth_.most > 0 && waits_on(*filep) && !is_missing(filep->mark.state) &&
      waiting_.take(*filep, direct.offset, direct.bytes())) {
    direct.clear();
    return;
  }
  const KeepError keep;
  if (write_direct(*filep) == 0) return;
  bfnote_failure(*filep);
  pool_direct();
}

// Brings the bytes that wait into the pool: 0, or -1 with iserrno, which is also kept as that of a
// write that failed.
int Pool::pool_direct() {
  OpenPair& file = *filep;
  // Taken first, or bfread() would come back here.
  const DirectWrite direct = std::exchange(file.unwritten.direct, {});
  const BlocksKept kept{direct.offset, direct.size};
  ConstBytes rest = direct.bytes();
  for (std::int64_t at = direct.offset; !rest.empty();) {
    Buffer* const block = bfread(static_cast<std::int32_t>(at / kPageSize) | kDataBlock);
    if (block == nullptr) {
      bfnote_failure(file);
      return -1;
    }
    const auto within = static_cast<std::size_t>(at % kPageSize);
    const std::size_t count = std::min(rest.size(), kPageSize - within);
    std::memcpy(block->page + within, rest.data(), count);
    modified(block);
    bfrelease(block);
    rest = rest.subspan(count);
    at += static_cast<std::int64_t>(count);
  }
  return 0;
}

void Pool::write_waiting(OpenPair& file) {
  if (!waiting_.has(file)) return;
  const KeepError keep;
  const auto write = [&](std::int64_t offset, ConstBytes bytes) {
    data_window_.overwritten(file.data.fd, offset, bytes.size());
    const int result = common::write_at(file.data.fd, bytes, offset);
    if (result != 0) {
      failed_system(errno, Operation::kWrite, FileKind::kData);
      bfnote_failure(file);
    }
    return result;
  };
  // Only records of fixed length wait.
  const auto slot = static_cast<std::size_t>(file.geometry.reclen) + kFixedTrailer;
  waiting_.each_across(slot, [&](std::int64_t offset, ConstBytes record) {
    if (!file.data.map.has(record, offset)) static_cast<void>(write(offset, record));
  });
  waiting_.write_all(write);
}

int Pool::bfprocess(OpenPair& file, bool write) {
  const std::vector<Buffer*>& pages = modified_pages(file);
  const int waiting = static_cast<int>(pages.size()) + (file.unwritten.direct.empty() ? 0 : 1) +
                      (waiting_.has(file) ? 1 : 0);
  if (!write || waiting == 0) return waiting;
  // A mark that cannot be set is no reason to write less.
  if (waits_on(file) && is_missing(file.mark.state) && set_mark(file) != 0) {
    bfnote_failure(file);
  }
  for (Buffer* page : pages) {
    // One may have been written with its neighbour.
    if ((page->flags & kModified) != 0) write_buffer(page);
  }
  if (write_direct(file) != 0) {
    bfnote_failure(file);
    file.unwritten.direct.clear();
  }
  write_waiting(file);
  return waiting;
}

void Pool::bfdrop(OpenPair& file, std::int32_t first) {
  for (Buffer* at = file.unwritten.pages; at != nullptr;) {
    Buffer* const page = std::exchange(at, at->modified_next);
    if (page->block < first) continue;
    modified_out(page);
    page->flags = static_cast<std::uint8_t>(page->flags & ~kValid);
  }
  if (first == INT32_MIN) waiting_.drop(file);
}

int Pool::bfdiscard(OpenPair& file) {
  if (file.call.spilled) return -1;
  file.unwritten.failed = {};
  file.unwritten.direct.clear();
  bfdrop(file, INT32_MIN);
  return 0;
}

void Pool::bfignor(OpenPair& file) {
  index_window_.forget(file.index.fd);
  data_window_.forget(file.data.fd);
  if (!file.unwritten.direct.empty() || waiting_.has(file)) {
    common::error("ignoring modified bytes");
  }
  for (const Buffer* at = file.unwritten.pages; at != nullptr; at = at->modified_next) {
    if ((at->flags & kBusy) == 0) common::error("ignoring modified buffer");
  }
  file.cached.generation = file.cached.data_generation = bfgeneration();
}

}  // namespace isam
