#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "common/fatal.h"
#include "common/io.h"
#include "isam/pool.h"

namespace isam {

// Where a page stands in the order of a commit; the dictionary goes behind kFreeList.
enum class Turn : std::uint64_t {
  kLengthens,
  kFreeList,
  kGoingRecord,
  kNode,
  kRecord,
  kGivesUp,
  kGivenNumber
};

namespace {

constexpr std::int64_t kSystemPage = 4096;

// The failure in iserrno is that of a write whose caller goes on.
void note_failed_write(FileRecord& file) {
  if (file.failed_write.error == 0) file.failed_write = {iserrno, iserrio};
}

bool lengthens(const Buffer& page) {
  if (page.block >= 0) return page.block > page.file->nodes_before;
  return (page.block & INT32_MAX) >= page.file->blocks_before;
}

Turn turn_of(const Buffer& page) {
  const bool removes = page.file->gives_number;
  if (page.block < 0) return removes ? Turn::kGoingRecord : Turn::kRecord;
  if (lengthens(page)) return Turn::kLengthens;
  if ((page.flags & kGivesUp) != 0) return Turn::kGivesUp;
  if (page.level == kFreeLevel && page.node_type >= kIndexFreeNode) {
    return removes && page.node_type == kServiceNode ? Turn::kGivenNumber : Turn::kFreeList;
  }
  return Turn::kNode;
}

}  // namespace

void Pool::modified(Buffer* buffer) {
  buffer->file->flags |= kPageChanged;
  if ((buffer->flags & kModified) != 0) return;
  buffer->flags |= kValid | kModified;
  Buffer*& head = buffer->file->modified;
  buffer->modified_previous = nullptr;
  buffer->modified_next = head;
  if (head != nullptr) head->modified_previous = buffer;
  head = buffer;
}

void Pool::modified_out(Buffer* buffer) {
  if ((buffer->flags & kModified) == 0) return;
  buffer->flags = static_cast<std::uint16_t>(buffer->flags & ~(kModified | kGivesUp));
  if (buffer->modified_previous != nullptr) {
    buffer->modified_previous->modified_next = buffer->modified_next;
  } else {
    buffer->file->modified = buffer->modified_next;
  }
  if (buffer->modified_next != nullptr) {
    buffer->modified_next->modified_previous = buffer->modified_previous;
  }
}

int Pool::bfwrite(Buffer* buffer) {
  if ((buffer->flags & kBusy) != 0) bfrelease(buffer);
  const Place place = bfmapaddr(*buffer);
  window_of(place.kind).overwritten(place.fd, place.offset, place.length);
  const int result = common::write_at(place.fd, {buffer->page, place.length}, place.offset);
  // A page whose write failed is not tried again.
  modified_out(buffer);
  if (result == 0) return 0;
  failed_system(errno, Operation::kWrite, place.kind);
  note_failed_write(*buffer->file);
  return -1;
}

// A buffer beside another one of the same file, with a modified idle page; null when there is none.
Buffer* Pool::delayed_beside(const Buffer& buffer, int step) const {
  if (buffer.block == (step < 0 ? kDataBlock : INT32_MAX)) return nullptr;
  Buffer* const beside = table_.find(buffer.block + step, buffer.file);
  const bool waits = beside != nullptr && (beside->flags & (kModified | kBusy)) == kModified;
  return waits ? beside : nullptr;
}

// Writes a page, and in one piece with it those beside it that wait as well, within one page of the
// system: it takes small writes into what was written in large pieces badly.
void Pool::write_delayed(Buffer* buffer) {
  const auto system_page = [](const Buffer& of) { return bfmapaddr(of).offset / kSystemPage; };
  const std::int64_t within = system_page(*buffer);
  Buffer* first = buffer;
  for (Buffer* at = buffer; at != nullptr && system_page(*at) == within;) {
    first = at;
    at = delayed_beside(*at, -1);
  }
  Buffer* const after = delayed_beside(*first, 1);
  if (after == nullptr || system_page(*after) != within) {
    bfwrite(first);
    return;
  }
  const Place place = bfmapaddr(*first);
  FileRecord& file = *first->file;
  run_.clear();
  for (Buffer* at = first; at != nullptr && system_page(*at) == within;) {
    run_.insert(run_.end(), at->page, at->page + place.length);
    modified_out(at);
    at = delayed_beside(*at, 1);
  }
  window_of(place.kind).overwritten(place.fd, place.offset, run_.size());
  if (common::write_at(place.fd, run_, place.offset) == 0) return;
  failed_system(errno, Operation::kWrite, place.kind);
  note_failed_write(file);
}

const std::vector<Buffer*>& Pool::modified_pages(const FileRecord& file) {
  to_write_.clear();
  for (Buffer* at = file.modified; at != nullptr; at = at->modified_next) {
    if ((at->flags & kBusy) == 0) to_write_.push_back(at);
  }
  return to_write_;
}

// Takes bytes that are better written by themselves than with their blocks. One change of a call
// at the most: a second one goes through the pool, and takes the first with it.
bool Pool::take_direct(std::int64_t offset, ConstBytes first, ConstBytes second) {
  FileRecord& file = *filep;
  std::vector<Byte>& bytes = file.direct.bytes;
  const std::size_t size = first.size() + second.size();
  const std::int64_t distance = offset - std::exchange(file.last_written, offset);
  // Those of an exclusive open wait in the pool for others of their block.
  const bool in_sequence =
      file.exclusives > 0 && std::abs(distance) < std::int64_t{kPageSize} + file.reclen;
  if (!bytes.empty() || in_sequence || !only_in_file(offset, size)) return false;
  try {
    bytes.resize(size);
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (file.data_map.read(file.datfd, bytes, offset) != static_cast<ssize_t>(size)) {
    bytes.clear();
    return false;
  }
  const auto behind = bytes.begin() + static_cast<std::ptrdiff_t>(first.size());
  if (std::equal(first.begin(), first.end(), bytes.begin()) &&
      std::equal(second.begin(), second.end(), behind)) {
    bytes.clear();
    return true;
  }
  std::ranges::copy(first, bytes.begin());
  std::ranges::copy(second, behind);
  file.direct.offset = offset;
  file.flags |= kPageChanged;
  return true;
}

// 0, or -1 with iserrno and the bytes still waiting.
int Pool::write_direct(FileRecord& file) {
  std::vector<Byte>& bytes = file.direct.bytes;
  if (bytes.empty()) return 0;
  data_window_.overwritten(file.datfd, file.direct.offset, bytes.size());
  if (common::write_at(file.datfd, bytes, file.direct.offset) != 0) {
    return failed_system(errno, Operation::kWrite, FileKind::kData);
  }
  bytes.clear();
  return 0;
}

// What cannot be written now waits in the pool, as other changes do.
void Pool::settle_direct() {
  if (filep->direct.bytes.empty()) return;
  const KeepError keep;
  if (write_direct(*filep) != 0) pool_direct();
}

// Brings the bytes that wait into the pool: 0, or -1 with iserrno, which is also kept as that of a
// write that failed.
int Pool::pool_direct() {
  FileRecord& file = *filep;
  std::vector<Byte> bytes = std::move(file.direct.bytes);
  file.direct.bytes.clear();
  ConstBytes rest = bytes;
  for (std::int64_t at = file.direct.offset; !rest.empty();) {
    Buffer* const block = bfread(static_cast<std::int32_t>(at / kPageSize) | kDataBlock);
    if (block == nullptr) {
      note_failed_write(file);
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

int Pool::bfprocess(FileRecord& file, bool write) {
  const std::vector<Buffer*>& pages = modified_pages(file);
  const int waiting = static_cast<int>(pages.size()) + (file.direct.bytes.empty() ? 0 : 1);
  if (write) {
    for (Buffer* page : pages) {
      if ((page->flags & kModified) != 0) write_delayed(page);
    }
    if (write_direct(file) != 0) {
      note_failed_write(file);
      file.direct.bytes.clear();
    }
  }
  return waiting;
}

// Where data blocks will lengthen the file, zero bytes do so first: absent records, whatever comes
// between this and the records. 0 or -1.
int Pool::make_room(const std::vector<Buffer*>& pages) {
  std::int64_t from = INT64_MAX;
  std::int64_t to = 0;
  for (const Buffer* page : pages) {
    if (page->block >= 0 || !lengthens(*page)) continue;
    const std::int64_t offset = bfmapaddr(*page).offset;
    from = std::min(from, offset);
    to = std::max(to, offset + std::int64_t{kPageSize});
  }
  if (to == 0) return 0;
  static constexpr Byte kZeros[kPageSize] = {};
  const int fd = pages.front()->file->datfd;
  for (from = std::max(from, common::file_size(fd)); from < to;) {
    const auto count = std::min<std::int64_t>(to - from, kPageSize);
    if (common::write_at(fd, {kZeros, static_cast<std::size_t>(count)}, from) != 0) {
      return failed_system(errno, Operation::kWrite, FileKind::kData);
    }
    from += count;
  }
  return 0;
}

// Writes the page at `at` together with the data blocks right before it: 0 or -1.
int Pool::write_run(std::size_t& at) {
  Buffer* const last = to_write_[at++];
  std::size_t end = at;
  while (last->block < 0 && end < to_write_.size() && end - at < kLongestRun &&
         std::int64_t{to_write_[end]->block} == std::int64_t{to_write_[end - 1]->block} - 1) {
    ++end;
  }
  if (end == at) return bfwrite(last);
  Buffer* const first = to_write_[end - 1];
  run_.resize((end - at + 1) * kPageSize);
  for (std::size_t i = at - 1; i < end; ++i) {
    std::memcpy(run_.data() + (end - 1 - i) * kPageSize, to_write_[i]->page, kPageSize);
  }
  const Place place = bfmapaddr(*first);
  data_window_.overwritten(place.fd, place.offset, run_.size());
  const int result = common::write_at(place.fd, run_, place.offset);
  const int reason = errno;
  for (std::size_t i = at - 1; i < end; ++i) modified_out(to_write_[i]);
  at = end;
  return result == 0 ? 0 : failed_system(reason, Operation::kWrite, FileKind::kData);
}

// Writes from `at` on what has its turn up to `last`: 0 or -1.
int Pool::write_until(Turn last, std::size_t& at) {
  while (at < to_write_.size() && turn_of(*to_write_[at]) <= last) {
    if (write_run(at) != 0) return -1;
  }
  return 0;
}

int Pool::write_in_order(FileRecord& file, int (*dictionary)()) {
  modified_pages(file);
  const auto key = [&](const Buffer* page) {
    // Within a turn the highest block goes first.
    return static_cast<std::uint64_t>(turn_of(*page)) << 32 |
           static_cast<std::uint32_t>(~page->block);
  };
  std::ranges::sort(to_write_, {}, key);
  if (make_room(to_write_) != 0) return -1;
  std::size_t at = 0;
  if (write_until(Turn::kFreeList, at) != 0 || dictionary() != 0) return -1;
  const Turn records = file.gives_number ? Turn::kGoingRecord : Turn::kRecord;
  if (write_until(records, at) != 0 || write_direct(file) != 0) return -1;
  return write_until(Turn::kGivenNumber, at);
}

int Pool::bfcommit(FileRecord& file, int (*dictionary)()) {
  const FailedWrite lost = std::exchange(file.failed_write, {});
  if (lost.error == 0 && write_in_order(file, dictionary) == 0) return 0;
  if (lost.error != 0) {
    iserrno = lost.error;
    iserrio = lost.place;
  }
  file.failed_write = {};
  file.direct.bytes.clear();
  while (file.modified != nullptr) modified_out(file.modified);
  bfignor(file);
  return -1;
}

int Pool::bfdiscard(FileRecord& file) {
  if (file.spilled) return -1;
  file.failed_write = {};
  file.direct.bytes.clear();
  while (file.modified != nullptr) {
    Buffer* const page = file.modified;
    modified_out(page);
    page->flags = static_cast<std::uint16_t>(page->flags & ~kValid);
  }
  return 0;
}

void Pool::bfignor(FileRecord& file) {
  index_window_.forget(file.idxfd);
  data_window_.forget(file.datfd);
  if (!file.direct.bytes.empty()) common::error("ignoring modified bytes");
  for (const Buffer* at = file.modified; at != nullptr; at = at->modified_next) {
    if ((at->flags & kBusy) == 0) common::error("ignoring modified buffer");
  }
  file.generation = bfgeneration();
}

}  // namespace isam
