// pool: the buffers behind isam/pool/buffers.h.
//
// pool.cpp finds and reads pages, poolvictim.cpp tells which buffer is used again, poolwrite.cpp
// writes what was changed, poolpieces.cpp what of it goes in one piece, writeorder.cpp what a call
// changed of a file that other processes use, poolgrowth.cpp has the memory that nodes changed
// under exclusive opens take beyond ISAMBUFS, waitingpages.cpp the records that they change. A
// function that buffers.h has too does what is said there. Here a data block's number has its top
// bit set.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "common/arena.h"
#include "common/byterange.h"
#include "common/readahead.h"
#include "isam/pool/buffers.h"
#include "isam/pool/lruring.h"
#include "isam/pool/mark.h"
#include "isam/pool/pagetable.h"
#include "isam/pool/place.h"
#include "isam/pool/waitingpages.h"
#include "isam/pool/writeorder.h"

namespace isam {

inline constexpr std::int32_t kDataBlock = INT32_MIN;  // the top bit of a data block's number
inline constexpr std::size_t kMostAdded = 2048;        // buffers that the pool grows by at most
inline constexpr std::int64_t kSystemPage = 4096;      // pages within one are written together
// Room for a node of 1025 bytes, in whole cache lines.
inline constexpr std::size_t kPageStride = 1088;

// Room for buffers beyond ISAMBUFS.
struct Growth {
  std::size_t most = 0;       // buffers that the pool grows to at most
  std::size_t room = 0;       // buffers that tables have room for, or nothing yet
  std::size_t not_asked = 0;  // so many times more growth is refused without asking the system
  std::size_t eased = 0;      // times that bfease() was called
};

class Pool {
 public:
  Pool();
  // A busy buffer for a page of the current file, which it may have already; nothing is read.
  Buffer* bfgetblk(std::int32_t block);
  Buffer* bfread(std::int32_t block);
  void expect(std::int32_t node) const;  // bfexpect
  Buffer* bfgetclr(std::int32_t block);
  bool copy_data(std::int64_t offset, Bytes to, Bytes behind);
  bool copy_byte(std::int64_t offset, Byte& to) const;
  void bfrelease(Buffer* buffer);
  // Whether a stale page is what the file has, which a look at its mapping tells: then it is stale
  // no more.
  [[nodiscard]] bool is_as_before(Buffer& buffer);
  // An idle page is used, though nobody has held it.
  void used(Buffer* buffer);
  // bfwrite() writes one page, changed or not, and releases it; write_buffer() writes an idle
  // modified one, and those beside it in the file. 0, or -1 with the failure in iserrno and noted:
  // then the changes of an exclusive open (but for a repair) stay modified, others are not tried
  // again.
  int bfwrite(Buffer* buffer);
  int write_buffer(Buffer* buffer);
  void keep_before(Buffer* buffer);  // a page that is as the file has it, before it is changed
  void modified(Buffer* buffer);
  bool take_direct(std::int64_t offset, ConstBytes first, ConstBytes second);  // bfdirect
  // Writes the bytes that take_direct() has taken: 0, or -1 with iserrno and the bytes still
  // waiting.
  int write_direct(OpenPair& file);
  void write_direct_or_pool();  // bfwrite_direct
  bool hold_direct();           // bfhold
  int write_held();             // bfwrite_held
  int bfprocess(OpenPair& file, bool write);
  // Writes the records that wait (isam/pool/waitingpages). What cannot be written waits on, and is
  // noted.
  void write_waiting(OpenPair& file);
  [[nodiscard]] bool has_waiting(const OpenPair& file) const { return waiting_.has(file); }
  void write_due();  // bfwrite_due
  // The page is written, or its change is lost.
  void modified_out(Buffer* buffer);
  int bfdiscard(OpenPair& file);
  void bfease(bool at_once);
  // Has the changed blocks of the current data file that have some of these bytes stay in the pool
  // until the next call. Returns the bytes of the call before.
  common::ByteRange keep_blocks(common::ByteRange bytes);
  void bfdrop(OpenPair& file, std::int32_t first);
  void bfignor(OpenPair& file);
  // What bfclosing() does.
  void closing(const OpenPair& file) { data_window_.forget(file.data.fd); }
  common::ReadAhead& window_of(FileKind kind) {
    return kind == FileKind::kData ? data_window_ : index_window_;
  }
  [[nodiscard]] std::size_t most_buffers() const { return most_buffers_; }
  WriteOrder& order() { return order_; }

 private:
  // Idle, but left out by oldest_that_may_go() because it may not give its buffer up.
  static bool is_out_of_order(const Buffer& buffer) {
    return buffer.released == kOutOfOrder && (buffer.flags & kBusy) == 0;
  }
  [[nodiscard]] bool add_buffers(std::size_t count);
  [[nodiscard]] bool more_room();
  // Whether one_more() is likely to have a buffer.
  [[nodiscard]] bool may_grow() const {
    return nbuffs_ < growth_.room || (nbuffs_ < growth_.most && growth_.not_asked == 0);
  }
  Buffer* one_more();
  void give_back();
  void put_in_order(Buffer* buffer);
  void has_new_bytes(Buffer* buffer) {
    buffer->version = ++versions_ & ((std::uint64_t{1} << 48) - 1);
  }
  // What buffer->page is, without reading the buffer.
  [[nodiscard]] const Byte* page_of(const Buffer* buffer) const {
    return pages_.get() + static_cast<std::size_t>(buffer - buffs_.get()) * kPageStride;
  }
  [[nodiscard]] bool may_go(const Buffer& buffer) const;
  Buffer* oldest_that_may_go(LruRing& order);
  Buffer* oldest_of_all();
  [[nodiscard]] bool waits_for_neighbours(const Buffer& block) const;
  Buffer* choose_victim();
  Buffer* victim();
  int spill(Buffer* buffer);
  void reuse(Buffer* buffer, std::int32_t block);
  const std::vector<Buffer*>& modified_pages(const OpenPair& file);
  Buffer* delayed_beside(const Buffer& buffer, int step) const;
  common::ByteRange find_beside(Buffer* buffer, std::int64_t part);
  [[nodiscard]] Buffer* changed_block(const OpenPair& file, std::int64_t offset) const;
  [[nodiscard]] bool is_in_file(const OpenPair& file, common::ByteRange bytes) const;
  [[nodiscard]] bool add_to_run(OpenPair& file, common::ByteRange bytes);
  [[nodiscard]] common::ByteRange with_whole_records(const OpenPair& file,
                                                     common::ByteRange pages) const;
  [[nodiscard]] const Buffer* data_block(std::int64_t block) const;
  [[nodiscard]] bool only_in_file(std::int64_t offset, std::size_t size) const;
  [[nodiscard]] bool read_data(Bytes to, std::int64_t offset);
  int write_data(OpenPair& file, std::int64_t offset, ConstBytes bytes);
  int write_page(OpenPair& file, const Place& place, ConstBytes bytes);
  void leave_to_file(std::int64_t offset, std::size_t size);
  [[nodiscard]] bool has_no_block(std::int64_t offset, std::size_t size) const;
  int pool_direct();
  static bool data_is_as_found(const OpenPair& file);
  static std::int64_t data_end(OpenPair& file);
  static std::int64_t end_within(std::int64_t offset, std::size_t size);
  bool load(Buffer& buffer);

  std::size_t nbuffs_ = 0;
  std::size_t most_buffers_ = 0;   // that calls of shared opens make the pool grow to
  std::size_t least_buffers_ = 0;  // what ISAMBUFS says
  Growth growth_;
  PageTable table_;
  LruRing nodes_;
  LruRing data_blocks_;
  std::size_t modified_blocks_ = 0;  // of data files
  common::ByteRange kept_;           // of keep_blocks()
  std::uint64_t releases_ = 0;
  std::uint64_t versions_ = 0;
  common::Arena<Buffer> buffs_;
  common::Arena<Byte> pages_;
  common::ReadAhead index_window_;
  common::ReadAhead data_window_;
  std::vector<Buffer*> to_write_;  // of modified_pages()
  std::vector<Buffer*> beside_;    // neighbouring pages on their way out
  std::vector<Byte> run_;          // their bytes
  WaitingPages waiting_;
  WriteOrder order_;
};

inline void Pool::write_due() {
  if (waiting_.is_due()) write_waiting(*waiting_.waiting_file());
}

inline void Pool::modified_out(Buffer* buffer) {
  if ((buffer->flags & kModified) == 0) return;
  buffer->flags = static_cast<std::uint8_t>(buffer->flags & ~(kModified | kGivesUp));
  if (buffer->modified_previous != nullptr) {
    buffer->modified_previous->modified_next = buffer->modified_next;
  } else {
    buffer->file->unwritten.pages = buffer->modified_next;
  }
  buffer->before = 0;
  if (buffer->block < 0) {
    --buffer->file->unwritten.data_blocks;
    --modified_blocks_;
  }
  if (buffer->modified_next != nullptr) {
    buffer->modified_next->modified_previous = buffer->modified_previous;
  }
  if (is_out_of_order(*buffer)) put_in_order(buffer);
}

// Whether what cannot be written stays in the pool, to be tried again: under an exclusive open.
[[nodiscard]] inline bool waits_on(const OpenPair& file) {
  return file.locks.exclusives > 0 && file.mark.state != MarkState::kUnneeded;
}

// Null before the first page is asked for.
extern std::unique_ptr<Pool> the_pool;
Pool& make_pool();
[[nodiscard]] inline Pool& pool() { return the_pool ? *the_pool : make_pool(); }

}  // namespace isam
