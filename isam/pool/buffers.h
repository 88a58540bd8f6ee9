// buffers: the page pool. Every index node and every block of a data file that is changed passes
// through it; records that are only read may be copied from the file.
//
// A page is free (of no file), cached (of a file, idle) or busy (held by one caller):
//
//            bfgetblk               bfrelease, bfwrite
//     free ----------> busy -----------------------------> cached
//       ^               ^               bfgetblk (hit)        |
//       |               +-------------------------------------+
//       +----------------------- bfignor ---------------------+
//
// Needs   pages are asked for relative to the current file (`filep`)
// Keeps   B1 a page has at most one holder
//         B2 a modified page is written before its buffer serves another page; where that fails and
//            there is no other buffer its change is lost, which is noted (Unwritten::failed). A
//            record that an exclusive open has changed on two pages is written as a whole
//         B3 the frame fields of a modified node (used count, kind, level) are put back into the
//            page when it is released
//         B4 of the index nodes and of the data blocks, the least recently released is the first to
//            give its buffer up, to within a sixteenth of the pool; nodes stay longer than data
//            blocks, of which some that have changed wait for those beside them in the file
//         B5 what a call changes of a file that others use too stays in the pool until the call
//            ends: the pool grows for it, and the call can be taken back
//         B6 forgetting a file costs the same however many pages of it are cached: its generation
//            changes, and pages of an older one count as not read
//         B7 in a large pool (4096 buffers) nodes that an exclusive open has changed may take up to
//            eight times the memory, an eighth of the system's at most: they are written when no
//            more can be had, when the system has little left, or when the exclusive open ends,
//            and then the memory is given back
//         B8 in a large pool the records that an exclusive open changes wait in pages of the system
//            (isam/pool/waitingpages), for a second at most while calls go on
// Gives   PageHold: a busy page that gives itself back when it leaves scope
// Never   locks; entering a call makes it forget a file that another process changed
//
//   PageHold page = bfread(node);
//   if (!page) return -1;               // iserrno is set
//   page.data()[offset] = byte;
//   page.modified();                    // written later: on reuse of the buffer, bfflush, bfcommit
//
// `ISAMBUFS` (4 to 32766, default 16) sets the number of buffers to begin with.
#pragma once

#include <cstdint>
#include <utility>

#include "common/byterange.h"
#include "isam/base/current.h"

namespace isam {

enum BufferFlag : std::uint8_t { kModified = 1, kValid = 2, kBusy = 4, kGivesUp = 8 };

// What a call touches of a buffer lies in one cache line.
struct alignas(64) Buffer {
  std::uint8_t flags;   // BufferFlag
  std::uint8_t before;  // which of Unwritten::before has what the page was, counted from 1; 0: none
  std::uint16_t used;   // frame fields of a node, kept here while the page is in the pool
  std::int32_t block;   // node number, or number of a data block with the top bit set
  std::uint64_t node_type : 8;
  std::uint64_t level : 8;
  std::uint64_t
      version : 48;  // of the page's bytes: no two reads or changes of pages have the same
  OpenPair* file;    // null: the buffer holds no page
  Byte* page;
  std::uint64_t generation;  // the file's when the page was read
  std::uint64_t released;    // when it was released last, counted in releases
  Buffer* modified_next;     // among the file's modified pages
  Buffer* modified_previous;
};
static_assert(sizeof(Buffer) == 64);

// A busy page. Released when it leaves scope.
class PageHold {
 public:
  PageHold() = default;
  explicit PageHold(Buffer* buffer) : buffer_(buffer) {}
  PageHold(PageHold&& other) noexcept : buffer_(std::exchange(other.buffer_, nullptr)) {}
  PageHold& operator=(PageHold&& other) noexcept {
    if (this != &other) {
      release();
      buffer_ = std::exchange(other.buffer_, nullptr);
    }
    return *this;
  }
  ~PageHold() { release(); }

  explicit operator bool() const { return buffer_ != nullptr; }

  // The whole page: the node's bytes, or the 1024 bytes of a data block.
  [[nodiscard]] Bytes bytes() const;
  [[nodiscard]] Byte* data() const { return buffer_->page; }
  [[nodiscard]] std::int32_t node() const { return buffer_->block; }

  [[nodiscard]] int used() const { return buffer_->used; }
  [[nodiscard]] Byte node_type() const { return static_cast<Byte>(buffer_->node_type); }
  [[nodiscard]] Byte level() const { return static_cast<Byte>(buffer_->level); }
  void set_used(int used) { buffer_->used = static_cast<std::uint16_t>(used); }
  void set_frame(int used, Byte node_type, Byte level) {
    set_used(used);
    buffer_->node_type = node_type;
    buffer_->level = level;
  }

  // The page is about to be changed: where it is as the file has it, a commit that fails can put it
  // back from memory, and need not ask the file for it first. (modified() alone will do, too.)
  void keep_before() const;
  // The page was changed: it will be written, at the latest by bfflush or bfcommit.
  void modified() const;
  // The same for a page that loses bytes which a record may still refer to: the commit writes it
  // after the records.
  void gives_up() const;
  // Whether gives_up() was called since the page was last written, whatever the page serves for
  // now.
  [[nodiscard]] bool is_given_up() const;
  void release() {
    if (buffer_ != nullptr) release_page(std::exchange(buffer_, nullptr));
  }
  // Writes the page now, changed or not, and gives it back: 0, or -1 with iserrno.
  int write();

 private:
  friend class PageStamp;
  static void release_page(Buffer* buffer);

  Buffer* buffer_ = nullptr;
};

// A node as it is while it is held.
class PageStamp {
 public:
  PageStamp() = default;
  explicit PageStamp(const PageHold& page)
      : buffer_(page.buffer_), version_(page.buffer_->version) {}
  // Whether the pool has that node of the current file still, not changed since and not held. It
  // counts as used, then.
  [[nodiscard]] bool stands() const;
  // The same where another process has changed the file meanwhile, but not this node. Which place
  // it has in a tree is to be found out anew.
  [[nodiscard]] bool stands_again() const;
  // Whether it is of this page as it is now.
  [[nodiscard]] bool is_of(const PageHold& page) const {
    return buffer_ == page.buffer_ && version_ == page.buffer_->version;
  }

 private:
  [[nodiscard]] bool is_there() const;

  Buffer* buffer_ = nullptr;
  std::uint64_t version_ = 0;
};

// Node `node` of the current file; empty with iserrno when it cannot be read whole (105 without a
// system error, and for a number below 1).
[[nodiscard]] PageHold bfread(std::int32_t node);
// Has the processor fetch the memory of a node of the current file that the pool has.
void bfexpect(std::int32_t node);
// Block `block` (byte offset / 1024) of the current data file. What lies past the end of the file
// reads as zero bytes.
[[nodiscard]] PageHold bfread_data(std::int32_t block);
// Copies bytes at `offset` of the current data file into `to`, and those that follow into `behind`,
// without holding a buffer. False when it takes more than a look into the pool or a mapping: then
// the blocks are to be read.
[[nodiscard]] bool bfcopy_data(std::int64_t offset, Bytes to, Bytes behind);
// A byte at `offset` of the current data file, likewise and without a look into the pool; what is
// read of other bytes is not expected to follow it.
[[nodiscard]] bool bfcopy_byte(std::int64_t offset, Byte& to);
// Takes two pieces that a call writes at `offset` of the current data file, one behind the other:
// they go there by themselves when the call ends, and their blocks need not be read into the pool.
// False, with nothing taken, when that cannot be or would not pay: then the blocks are to be
// changed.
[[nodiscard]] bool bfdirect(std::int64_t offset, ConstBytes first, ConstBytes second);
// Writes what bfdirect() has taken of the current file, and no other change. What cannot be written
// goes into the pool, with the failure in Unwritten::failed. iserrno stays.
void bfwrite_direct();
// Writes the records of an exclusive open, of whatever file, that have waited for a second.
void bfwrite_due();
// Whether the current data file has all records: none is changed in the pool, or waits.
[[nodiscard]] bool bfdata_is_written();
// Holds back what bfdirect() has taken: it is read as if it were written, and bfwrite_held() writes
// it. False, with nothing done, without memory.
[[nodiscard]] bool bfhold();
// Writes what is held back of the current file: 0, or -1 with iserrno and the file as it was, as
// far as it can be written. Either way nothing is held back any more.
int bfwrite_held();
// While it lives, the blocks of the current data file that have some of these bytes stay in the
// pool once they are changed: a record of many blocks is not written before all of them have
// changed.
class BlocksKept {
 public:
  BlocksKept(std::int64_t offset, std::size_t size);
  BlocksKept(const BlocksKept&) = delete;
  BlocksKept& operator=(const BlocksKept&) = delete;
  ~BlocksKept();

 private:
  common::ByteRange before_;
};
// A node to be written as a whole: zeroed, valid, modified; empty with 105 (number below 1) or 116.
[[nodiscard]] PageHold bfgetclr(std::int32_t node);

// Counts a file's modified idle pages, and what bfdirect() has taken as one more. Writes them when
// `write` is set.
int bfprocess(OpenPair& file, bool write);
// bfprocess() that writes. A failed write is kept in the open pair (Unwritten::failed); the pages
// of an exclusive open stay modified, others are not tried again.
int bfflush(OpenPair& file);
// Notes the failure in iserrno, that of a write whose caller goes on, in Unwritten.
void bfnote_failure(OpenPair& file);
// Writes the modified idle pages of `file`, which is the current one, what goes past the pool, and
// the dictionary in the order of isam/pool/writeorder, which lets other processes go on safely
// whenever this one is killed. The first failure, or one that bfnote_failure() has noted before,
// ends it: what it has written is taken back, all pages are forgotten and -1 returned with iserrno.
// Else 0.
int bfcommit(OpenPair& file);
// Forgets a file's unwritten changes, those of the current call: 0, or -1 and nothing done when one
// has been spilled. The dictionary is the caller's.
int bfdiscard(OpenPair& file);
// Forgets the modified nodes from number `first` on; with INT32_MIN all modified pages of the file.
void bfdrop(OpenPair& file, std::int32_t first);
// bfprocess() that only counts.
int bfpend(OpenPair& file);
// Gives back the memory that changed nodes have taken beyond `ISAMBUFS`, after writing them: at
// once, as far as it holds nothing unwritten, or, asked between calls, now and then when the system
// has little left.
void bfease(bool at_once);
// Forgets every idle page of a file. A change that waits to be written is fatal: it would be lost.
void bfignor(OpenPair& file);
// The descriptor of a file's data is about to be closed: nothing that was read ahead through it is
// kept.
void bfclosing(const OpenPair& file);
// A generation that no file has had yet, for an OpenPair that begins to serve another pair of
// files.
[[nodiscard]] std::uint64_t bfgeneration();

}  // namespace isam
