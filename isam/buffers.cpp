#include "isam/buffers.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "common/arena.h"
#include "common/fatal.h"
#include "common/io.h"
#include "common/readahead.h"
#include "environment/settings.h"
#include "isam/errors.h"

namespace isam {
namespace {

enum BufferFlag : std::uint16_t { kModified = 1, kValid = 2, kBusy = 4, kGivesUp = 8 };

constexpr std::int32_t kDataBlock = INT32_MIN;  // the top bit
constexpr int kMinBuffers = 4;
constexpr int kMaxBuffers = 32766;
constexpr std::size_t kMostAdded = 2048;      // more than one call changes
constexpr std::uint64_t kNodeLifetimes = 64;  // of an unused data block
constexpr std::size_t kLongestRun = 40;       // blocks, more than the longest record takes
constexpr std::int64_t kSystemPage = 4096;
constexpr std::size_t kPageStride = 1088;  // room for a node of 1025 bytes, in whole cache lines

// Finds the buffer of a page. Open addressing in one array of small slots: a look-up reads one line
// of it, and much of it stays in the processor's caches.
class PageTable {
 public:
  // False without memory.
  [[nodiscard]] bool reserve(Buffer* buffers, std::size_t count) {
    const std::size_t slots = std::bit_ceil(count * 2);
    buffers_ = buffers;
    mask_ = slots - 1;
    slots_ = common::make_arena<Slot>(slots);
    return slots_ != nullptr;
  }
  [[nodiscard]] Buffer* find(std::int32_t block, const FileRecord* file) const {
    const std::uint16_t tag = tag_of(file);
    for (std::size_t at = home(block, tag);; at = (at + 1) & mask_) {
      const Slot slot = slots_[at];
      if (slot.buffer == kNone) return nullptr;
      if (slot.block != block || slot.file_tag != tag) continue;
      Buffer* const buffer = &buffers_[slot.buffer - 1];
      if (buffer->file == file) return buffer;
    }
  }
  void insert(const Buffer* buffer) {
    const std::uint16_t tag = tag_of(buffer->file);
    std::size_t at = home(buffer->block, tag);
    while (slots_[at].buffer != kNone) at = (at + 1) & mask_;
    slots_[at] = {buffer->block, tag, number_of(buffer)};
  }
  void erase(const Buffer* buffer) {
    const std::uint16_t number = number_of(buffer);
    std::size_t gap = home(buffer->block, tag_of(buffer->file));
    while (slots_[gap].buffer != number) gap = (gap + 1) & mask_;
    // What stands behind moves up as long as its way from home leads over the gap.
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
  struct Slot {
    std::int32_t block;
    std::uint16_t file_tag;  // of its address; two files may have the same
    std::uint16_t buffer;    // number from 1
  };
  static constexpr std::uint16_t kNone = 0;
  static constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15U;
  static_assert(kMaxBuffers + kMostAdded < UINT16_MAX);

  [[nodiscard]] std::uint16_t number_of(const Buffer* buffer) const {
    return static_cast<std::uint16_t>(buffer - buffers_ + 1);
  }
  [[nodiscard]] static std::uint16_t tag_of(const FileRecord* file) {
    const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(file));
    return static_cast<std::uint16_t>(address * kSpread >> 48);
  }
  [[nodiscard]] std::size_t home(std::int32_t block, std::uint16_t tag) const {
    const std::uint64_t name = std::uint64_t{tag} << 32 | static_cast<std::uint32_t>(block);
    return (name * kSpread >> 32) & mask_;
  }

  Buffer* buffers_ = nullptr;
  common::Arena<Slot> slots_;
  std::size_t mask_ = 0;
};

// The order in which buffers were released. A ring of releases, read from its old end; a release
// counts only while it is its buffer's last one and the buffer idle. Unlike a linked list it costs
// a page found in the pool no look at other buffers.
class ReleaseOrder {
 public:
  // Makes room for so many buffers; false without memory, with everything as it was.
  [[nodiscard]] bool reserve(std::size_t buffers) {
    const std::size_t releases = std::bit_ceil(buffers * 4);
    if (releases <= mask_ + 1) return true;
    ReleaseOrder larger;
    larger.ring_ = common::make_arena<Buffer*>(releases);
    larger.numbers_ = common::make_arena<std::uint64_t>(releases);
    if (larger.ring_ == nullptr || larger.numbers_ == nullptr) return false;
    larger.mask_ = releases - 1;
    for (; begin_ != end_; ++begin_) {
      if (counts(begin_)) larger.released(ring_[begin_ & mask_]);
    }
    *this = std::move(larger);
    return true;
  }
  void released(Buffer* buffer) {
    if (end_ - begin_ > mask_) compact();
    ring_[end_ & mask_] = buffer;
    numbers_[end_++ & mask_] = buffer->released;
  }
  // Null when every buffer is busy.
  [[nodiscard]] Buffer* oldest() {
    for (; begin_ != end_; ++begin_) {
      if (counts(begin_)) return ring_[begin_ & mask_];
    }
    return nullptr;
  }

 private:
  [[nodiscard]] bool counts(std::uint64_t at) const {
    const Buffer& buffer = *ring_[at & mask_];
    return buffer.released == numbers_[at & mask_] && (buffer.flags & kBusy) == 0;
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

class Pool {
 public:
  Pool();
  Buffer* bfgetblk(std::int32_t block);
  Buffer* bfread(std::int32_t block);
  Buffer* bfgetclr(std::int32_t block);
  bool copy_data(std::int64_t offset, Bytes to, Bytes behind);
  void bfrelease(Buffer* buffer);
  int bfwrite(Buffer* buffer);
  void write_delayed(Buffer* buffer);
  void modified(Buffer* buffer);
  int bfprocess(FileRecord& file, bool write);
  int bfcommit(FileRecord& file, int (*dictionary)());
  static int bfdiscard(FileRecord& file);
  void bfignor(FileRecord& file);
  void closing(const FileRecord& file) { data_window_.forget(file.datfd); }

 private:
  // Where a page stands: descriptor, byte offset, length.
  struct Place {
    int fd;
    std::int64_t offset;
    std::size_t length;
    FileKind kind;
  };

  static Place bfmapaddr(const Buffer& buffer);
  static void modified_out(Buffer* buffer);
  [[nodiscard]] bool add_buffers(std::size_t count);
  void put_in_order(Buffer* buffer);
  Buffer* least_wanted();
  Buffer* victim();
  void reuse(Buffer* buffer, std::int32_t block);
  const std::vector<Buffer*>& modified_pages(const FileRecord& file);
  static int make_room(const std::vector<Buffer*>& pages);
  Buffer* delayed_beside(const Buffer& buffer, int step) const;
  int write_run(std::size_t& at);
  int write_in_order(const FileRecord& file, int (*dictionary)());
  bool load(Buffer& buffer);
  common::ReadAhead& window_of(FileKind kind) {
    return kind == FileKind::kData ? data_window_ : index_window_;
  }

  std::size_t nbuffs_ = 0;
  std::size_t most_buffers_ = 0;
  PageTable table_;
  ReleaseOrder nodes_;
  ReleaseOrder data_blocks_;
  std::uint64_t releases_ = 0;
  common::Arena<Buffer> buffs_;
  common::Arena<Byte> pages_;
  common::ReadAhead index_window_;
  common::ReadAhead data_window_;
  std::vector<Buffer*> to_write_;
  std::vector<Byte> run_;  // neighbouring pages on their way out
};

std::unique_ptr<Pool> the_pool;
std::uint64_t last_generation = 0;

Pool& pool() {
  if (!the_pool) the_pool = std::make_unique<Pool>();
  return *the_pool;
}

Pool::Pool() {
  const auto count =
      static_cast<std::size_t>(environment::number("ISAMBUFS", kMinBuffers, kMaxBuffers));
  const std::size_t most = most_buffers_ = count + kMostAdded;
  buffs_ = common::make_arena<Buffer>(count, kMostAdded);
  pages_ = common::make_arena<Byte>(count * kPageStride, kMostAdded * kPageStride);
  if (!buffs_ || !pages_ || !table_.reserve(buffs_.get(), most) || !add_buffers(count)) {
    common::error("cannot allocate buffers");
  }
  to_write_.reserve(most);
  run_.reserve((kLongestRun + 1) * kPageSize);
}

// Puts buffers to use that have been spare: false without memory, with the pool as it was.
bool Pool::add_buffers(std::size_t count) {
  const std::size_t all = std::min(nbuffs_ + count, most_buffers_);
  if (!nodes_.reserve(all) || !data_blocks_.reserve(all)) return false;
  for (; nbuffs_ < all; ++nbuffs_) {
    buffs_[nbuffs_].page = pages_.get() + nbuffs_ * kPageStride;
    put_in_order(&buffs_[nbuffs_]);
  }
  return true;
}

Pool::Place Pool::bfmapaddr(const Buffer& buffer) {
  const FileRecord& file = *buffer.file;
  if (buffer.block < 0) {
    return {file.datfd, std::int64_t{buffer.block & INT32_MAX} * kPageSize, kPageSize,
            FileKind::kData};
  }
  const int node_bytes = file.idxsize + 1;
  return {file.idxfd, std::int64_t{buffer.block - 1} * node_bytes,
          static_cast<std::size_t>(node_bytes), FileKind::kIndex};
}

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

void Pool::put_in_order(Buffer* buffer) {
  buffer->released = ++releases_;
  (buffer->block < 0 ? data_blocks_ : nodes_).released(buffer);
}

// The buffer that was released least recently, where a node counts as released later than it was:
// it serves many records, a data block few. Null when every buffer is busy.
Buffer* Pool::least_wanted() {
  Buffer* const node = nodes_.oldest();
  Buffer* const block = data_blocks_.oldest();
  if (node == nullptr || block == nullptr) return node == nullptr ? block : node;
  const std::uint64_t head_start = kNodeLifetimes * nbuffs_;
  return block->released < node->released + head_start ? block : node;
}

// The buffer to be reused. Pages that a call changed keep theirs until the call ends, so that its
// changes can be taken back, or are written in their order: the pool grows for them. (Those of an
// exclusive open go when they must.)
Buffer* Pool::victim() {
  const auto may_go = [](const Buffer* buffer) {
    return (buffer->flags & kModified) == 0 || buffer->file->exclusives > 0;
  };
  Buffer* buffer = least_wanted();
  for (std::size_t tries = 0; tries < nbuffs_ && buffer != nullptr && !may_go(buffer); ++tries) {
    put_in_order(buffer);
    buffer = least_wanted();
  }
  if (buffer == nullptr || may_go(buffer) || nbuffs_ >= most_buffers_) return buffer;
  Buffer* const added = &buffs_[nbuffs_];
  return add_buffers(std::min(nbuffs_, kMostAdded / 8)) ? added : buffer;
}

// Gives an idle buffer to another page of the current file.
void Pool::reuse(Buffer* buffer, std::int32_t block) {
  if ((buffer->flags & kModified) != 0) {
    // The failure belongs to the page that goes, not to the call that needs its buffer: it is
    // kept in the file record and reported at the end.
    const KeepError keep;
    buffer->file->spilled = true;
    write_delayed(buffer);
  }
  if (buffer->file != nullptr) table_.erase(buffer);
  buffer->block = block;
  buffer->file = filep;
  buffer->flags = 0;
  table_.insert(buffer);
}

Buffer* Pool::bfgetblk(std::int32_t block) {
  Buffer* buffer = table_.find(block, filep);
  if (buffer != nullptr) {
    // Under way while the buffer's own line is waited for.
    const Byte* const page =
        pages_.get() + static_cast<std::size_t>(buffer - buffs_.get()) * kPageStride;
    __builtin_prefetch(page);
    __builtin_prefetch(page + 64);
    __builtin_prefetch(page + 512);
  } else {
    buffer = victim();
    if (buffer == nullptr) common::error("no more buffers");
    reuse(buffer, block);
  }
  if ((buffer->flags & kBusy) != 0) common::error("buffer not free");
  if (buffer->generation != filep->generation) {
    if ((buffer->flags & kModified) == 0) buffer->flags = 0;
    buffer->generation = filep->generation;
  }
  buffer->flags |= kBusy;
  return buffer;
}

bool Pool::load(Buffer& buffer) {
  const Place place = bfmapaddr(buffer);
  FileRecord& file = *buffer.file;
  common::FileMap& map = place.kind == FileKind::kData ? file.data_map : file.index_map;
  const ssize_t got =
      window_of(place.kind).read(place.fd, map, {buffer.page, place.length}, place.offset);
  const bool whole = got == static_cast<ssize_t>(place.length);
  if (got < 0 || (!whole && place.kind == FileKind::kIndex)) {
    failed_system(got < 0 && errno != 0 ? errno : kCorrupted, Operation::kRead, place.kind);
    return false;
  }
  if (!whole) std::memset(buffer.page + got, 0, place.length - static_cast<std::size_t>(got));
  if (place.kind == FileKind::kIndex) {
    buffer.used = common::ldword(buffer.page) & 0x7FFF;
    buffer.node_type = buffer.page[node_type_offset(buffer.file->idxsize)];
    buffer.level = buffer.page[node_level_offset(buffer.file->idxsize)] & 0x7F;
  }
  buffer.flags |= kValid;
  return true;
}

Buffer* Pool::bfread(std::int32_t block) {
  Buffer* buffer = bfgetblk(block);
  if ((buffer->flags & kValid) == 0 && !load(*buffer)) {
    bfrelease(buffer);
    return nullptr;
  }
  return buffer;
}

bool Pool::copy_data(std::int64_t offset, Bytes to, Bytes behind) {
  FileRecord& file = *filep;
  const std::size_t size = to.size() + behind.size();
  if (offset < 0 || !file.data_map.covers(size, offset)) return false;
  const std::int64_t last = (offset + static_cast<std::int64_t>(size) - 1) / kPageSize;
  for (std::int64_t block = offset / kPageSize; block <= last; ++block) {
    if (block > INT32_MAX) return false;
    if (table_.find(static_cast<std::int32_t>(block) | kDataBlock, &file) != nullptr) return false;
  }
  const std::int64_t then = offset + static_cast<std::int64_t>(to.size());
  return data_window_.read(file.datfd, file.data_map, to, offset) ==
             static_cast<ssize_t>(to.size()) &&
         file.data_map.read(file.datfd, behind, then) == static_cast<ssize_t>(behind.size());
}

Buffer* Pool::bfgetclr(std::int32_t block) {
  Buffer* buffer = bfgetblk(block);
  std::memset(buffer->page, 0, kPageStride);
  buffer->used = 0;
  buffer->node_type = buffer->level = 0;
  modified(buffer);
  return buffer;
}

void Pool::bfrelease(Buffer* buffer) {
  if ((buffer->flags & kBusy) == 0) common::error("buffer not busy");
  buffer->flags = static_cast<std::uint16_t>(buffer->flags & ~kBusy);
  if ((buffer->flags & kModified) != 0 && buffer->block >= 0) {
    common::stword(buffer->used, buffer->page);
    buffer->page[node_type_offset(buffer->file->idxsize)] = buffer->node_type;
    buffer->page[node_level_offset(buffer->file->idxsize)] = buffer->level;
  }
  put_in_order(buffer);
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
  FailedWrite& kept = buffer->file->failed_write;
  if (kept.error == 0) kept = {iserrno, iserrio};
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
  if (file.failed_write.error == 0) file.failed_write = {iserrno, iserrio};
}

const std::vector<Buffer*>& Pool::modified_pages(const FileRecord& file) {
  to_write_.clear();
  for (Buffer* at = file.modified; at != nullptr; at = at->modified_next) {
    if ((at->flags & kBusy) == 0) to_write_.push_back(at);
  }
  return to_write_;
}

int Pool::bfprocess(FileRecord& file, bool write) {
  const std::vector<Buffer*>& pages = modified_pages(file);
  if (write) {
    for (Buffer* page : pages) {
      if ((page->flags & kModified) != 0) write_delayed(page);
    }
  }
  return static_cast<int>(pages.size());
}

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

int Pool::write_in_order(const FileRecord& file, int (*dictionary)()) {
  modified_pages(file);
  const auto key = [&](const Buffer* page) {
    // Within a turn the highest block goes first.
    return static_cast<std::uint64_t>(turn_of(*page)) << 32 |
           static_cast<std::uint32_t>(~page->block);
  };
  std::ranges::sort(to_write_, {}, key);
  if (make_room(to_write_) != 0) return -1;
  std::size_t at = 0;
  while (at < to_write_.size() && turn_of(*to_write_[at]) <= Turn::kFreeList) {
    if (write_run(at) != 0) return -1;
  }
  if (dictionary() != 0) return -1;
  while (at < to_write_.size()) {
    if (write_run(at) != 0) return -1;
  }
  return 0;
}

int Pool::bfcommit(FileRecord& file, int (*dictionary)()) {
  const FailedWrite lost = std::exchange(file.failed_write, {});
  if (lost.error == 0 && write_in_order(file, dictionary) == 0) return 0;
  if (lost.error != 0) {
    iserrno = lost.error;
    iserrio = lost.place;
  }
  file.failed_write = {};
  while (file.modified != nullptr) modified_out(file.modified);
  bfignor(file);
  return -1;
}

int Pool::bfdiscard(FileRecord& file) {
  if (file.spilled) return -1;
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
  for (const Buffer* at = file.modified; at != nullptr; at = at->modified_next) {
    if ((at->flags & kBusy) == 0) common::error("ignoring modified buffer");
  }
  file.generation = bfgeneration();
}

}  // namespace

Bytes PageHold::bytes() const {
  const int length = buffer_->block < 0 ? kPageSize : buffer_->file->idxsize + 1;
  return {buffer_->page, static_cast<std::size_t>(length)};
}

void PageHold::modified() const { the_pool->modified(buffer_); }

void PageHold::gives_up() const {
  modified();
  buffer_->flags |= kGivesUp;
}

bool PageHold::is_given_up() const { return (buffer_->flags & kGivesUp) != 0; }

void PageHold::release() {
  if (buffer_ != nullptr) the_pool->bfrelease(std::exchange(buffer_, nullptr));
}

int PageHold::write() {
  modified();
  return the_pool->bfwrite(std::exchange(buffer_, nullptr));
}

PageHold bfread(std::int32_t node) {
  if (node < 1) {
    failed(kCorrupted);
    return {};
  }
  return PageHold{pool().bfread(node)};
}

PageHold bfread_data(std::int32_t block) { return PageHold{pool().bfread(block | kDataBlock)}; }

bool bfcopy_data(std::int64_t offset, Bytes to, Bytes behind) {
  return pool().copy_data(offset, to, behind);
}

PageHold bfgetclr(std::int32_t node) {
  if (node < 1) {
    failed(kCorrupted);
    return {};
  }
  return PageHold{pool().bfgetclr(node)};
}

int bfprocess(FileRecord& file, bool write) {
  return the_pool ? the_pool->bfprocess(file, write) : 0;
}

int bfflush(FileRecord& file) { return bfprocess(file, true); }

int bfcommit(FileRecord& file, int (*dictionary)()) { return pool().bfcommit(file, dictionary); }

int bfdiscard(FileRecord& file) { return Pool::bfdiscard(file); }

int bfpend(FileRecord& file) { return bfprocess(file, false); }

void bfignor(FileRecord& file) {
  if (the_pool) the_pool->bfignor(file);
}

void bfclosing(const FileRecord& file) {
  if (the_pool) the_pool->closing(file);
}

std::uint64_t bfgeneration() { return ++last_generation; }

}  // namespace isam
