// current: what is global in the library, seen at a glance.
//
// The library is process-wide: one open is current during a call. `openp`, `filep` and `dictp`
// name it, its file and the file's dictionary copy; every internal operation works on them.
// make_current() of isam/files/files sets them; `openp` becomes null when its open is closed.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/filemap.h"
#include "isam.h"
#include "isam/base/format.h"
#include "isam/base/numberset.h"
#include "isam/base/position.h"

namespace isam {

class BulkLoad;
class ScanAhead;
struct Buffer;

inline constexpr int nopens = 256;  // opens of a process
inline constexpr int nfiles = 256;  // open pairs of a process

// Whether the process logs its changes, and whether a transaction is open.
enum TransactionFlag : int { kInTransaction = 0, kNotLogging = 1, kLogging = 2 };
extern int txflag;

using NodeBytes = std::array<Byte, kMaxNodeSize>;

// A write that failed after its caller had gone on; 0 for none.
struct FailedWrite {
  std::int32_t error = 0;  // as iserrno
  std::int32_t place = 0;  // as iserrio
};

// How far one of the files reaches (isam/pool/extent). Other opens than exclusive ones use only
// `bytes` of the data file.
struct Extent {
  std::int64_t bytes = 0;  // its size as last known; 0: not asked yet
  std::int64_t kept = 0;   // bytes that are not cut off, whatever the dictionary says
  int pages_ahead = 0;     // to be taken next time beyond those that are needed
};

// Bytes of the data file that the current call changes, to be written past the pool.
struct DirectWrite {
  std::int64_t offset = 0;
  std::size_t size = 0;    // 0 for none
  std::vector<Byte> room;  // so many bytes, then as many that the file has in their place
  // Where the file ends, if it ends among them; they lengthen it then. 0: they do not.
  std::int64_t file_end = 0;

  [[nodiscard]] bool empty() const { return size == 0; }
  void clear() { size = 0; }
  [[nodiscard]] ConstBytes bytes() const { return {room.data(), size}; }
  // Zeros where the file has none.
  [[nodiscard]] ConstBytes before() const { return {room.data() + size, size}; }
};

// What this process has to do with the mark of its changes in the index file (isam/pool/mark).
enum class MarkState : std::uint8_t {
  kUnknown,   // nobody has looked yet
  kClear,     // to be set before a change stays unwritten
  kSet,       // it stands there
  kNotOurs,   // ... but not by this process, or its place is taken: it stays as it is
  kUnneeded,  // a repair sees to the mark itself
};

// Whether the mark has to be set before a change stays unwritten.
[[nodiscard]] inline bool is_missing(MarkState mark) { return mark <= MarkState::kClear; }

// How copies of many records at a time out of a file went on (isam/records/askahead).
struct CopyRun {
  bool has_waited = false;  // the last one that was timed waited for the disk
  int patience = 0;         // so many more are asked for, though they do not wait
  unsigned in_row = 0;      // those that followed each other while none was asked for
  std::int32_t last = 0;    // the last record of the last one
  // How far beyond a batch of this run the system was last asked to read, and up to where that was:
  // negative towards the start of the file, 0 when it has not been asked yet.
  std::int64_t beyond = 0;
  std::int64_t asked = 0;
};

// One of the two files of a pair. Valid while the pair is open; only `fd` of the data file goes and
// comes meanwhile.
struct PairFile {
  int fd = -1;       // -1 while vclose has it closed
  int mode = 0;      // access that it was opened with, as O_RDWR
  dev_t device = 0;  // identity, by which pairs are told apart
  ino_t inode = 0;
  Extent extent;
  common::FileMap map;                   // through which it is read
  std::optional<bool> map_shows_writes;  // of others, at once; not asked before it matters
  CopyRun copies;
};

// What lengths and sizes follow from. Valid from an open's first call on, and the same as long as
// the pair has an open (adopt_dictionary).
struct Geometry {
  int reclen = 0;     // record length; the fixed part's with variable length
  int maxreclen = 0;  // greatest record length; reclen for fixed length
  int idxsize = 0;    // node size minus one
  int dupsize = 0;    // width of duplicate numbers
  bool varlen = false;

  bool operator==(const Geometry&) const = default;
};

// The locks that this process has on the pair through any of its opens. Valid always.
struct PairLocks {
  std::int16_t exclusives = 0;  // exclusive opens that hold the open lock
  std::int16_t filelocks = 0;   // opens that hold the whole-file lock
  NumberSet held;               // records locked, but for those of the next list
  NumberSet releasable;         // read in a transaction: isrelease lets go of their locks in it
  bool kept = false;            // a transaction changes records of the pair: they stay locked
};

// What a call knows of the file it works on. Valid from isenter to isexit; each call begins with a
// fresh one (note_beginning).
struct OfCall {
  std::int32_t nodes_before = 0;       // when it began: highest node in use
  std::int32_t numbers_before = 0;     // ... highest record number in use
  std::int32_t free_list_before = 0;   // ... head of the list of free records
  std::int32_t free_nodes_before = 0;  // ... head of the list of free nodes
  std::int64_t data_end = 0;           // where the data file ended, once that was asked for
  bool page_changed = false;           // it has changed a page
  bool gives_number = false;           // it gives a record's number back
  bool spilled = false;                // a changed page has been written meanwhile
  bool keeps_changes = false;          // what it changed stays even if it fails
  bool may_hold = false;               // the record that it rewrites may be held back
  bool is_of_many = false;             // it is one of many that a call of the application rewrites
  bool more_follow = false;            // ... and not the last of them
  bool has_room = false;               // what it puts back needs no more room (RoomIsThere)
};

// What is changed in this process and not yet in the files. Empty between the calls of shared
// opens; of exclusive ones it stays until isflush or the last of them is closed.
struct Unwritten {
  Buffer* pages = nullptr;        // modified pages in the pool
  std::size_t data_blocks = 0;    // of these, blocks of the data file
  std::vector<NodeBytes> before;  // what some of the pages were, for a commit that fails
  std::uint8_t before_used = 0;   // so many at the front of `before` count
  DirectWrite direct;             // bytes that are written past it
  std::vector<DirectWrite> held;  // those of earlier calls that are held back, in their order
  std::size_t held_count = 0;     // so many at the front of `held`: the others lend their memory
  std::int64_t last_written = 0;  // offset that bfdirect() was asked for last
  bool dictionary = false;        // the dictionary copy differs from the file's
  int calls = 0;                  // calls of exclusive opens since the dictionary was written
  bool stamp_lags = false;        // ... in the file: what is held back has raised it further
  bool is_announced = false;      // what is held back has raised it in the file
  FailedWrite failed;             // the first since one was last told
  FailedWrite lost;               // ... since the pair was opened exclusively
  bool pages_lost = false;        // since then a page has lost its buffer unwritten

  [[nodiscard]] std::span<const DirectWrite> all_held() const {
    return std::span{held}.first(held_count);
  }
};

// The mark of changes that are not written. Known from an exclusive open on.
struct PairMark {
  MarkState state = MarkState::kUnknown;
  pid_t process = 0;  // this process, while its mark stands in the file
};

// Copies of what the files hold. Valid as of the change stamp and generation beside them.
struct Cached {
  std::uint32_t stamp = 0;            // change stamp last seen in this process
  std::uint64_t generation = 0;       // of its nodes in the pool: those of another one are stale
  std::uint64_t data_generation = 0;  // ... of its data blocks
  Dictionary dictionary{};
  std::vector<keydescr> keys;         // of file_keys(), in isam/keys/keytable
  std::uint64_t keys_generation = 0;  // generation they were read in; 0: out of date
  std::int32_t greatest_node = 0;     // that may be given out, by the file's size when last asked
  std::int32_t greatest_record = 0;   // ... and record number
};

// One physical pair, shared by all its opens in the process.
struct OpenPair {
  std::int16_t usecount = -1;  // opens using it; 0: idle, still open; -1: the record is free
  std::uint64_t lastuse = 0;   // value of the use counter at the last call
  bool takes_no_open = false;  // no new open may use it, and it does not stay idle
  bool lists_numbers = false;  // a freed number goes on its list, even the highest
  std::string name;            // base name, without suffix
  std::string folder;          // what the name is relative to, with its "/"; may be empty
  PairFile index;
  PairFile data;
  int trail_fd = -1;  // of the audit trail, -1 while that is closed
  Geometry geometry;
  PairLocks locks;
  OfCall call;
  Unwritten unwritten;
  PairMark mark;
  Cached cached;
  std::shared_ptr<BulkLoad> load;  // the bulk load under way (isam/calls/bulkload)
};

// What an open's number stands for.
enum class OpenState : std::uint8_t {
  kFree,
  kInUse,
  kInherited,  // nothing but a number that was the parent process's open
};

// What the transaction under way has done through an open. Valid while it lasts.
struct OfTransaction {
  bool undoable = false;    // it has changed records
  bool frees_keys = false;  // ... deleted or rewritten some, whose keys an undoing brings back
};

// An item that a change has taken out of the index with this place among the file's.
struct TakenItem {
  std::size_t index;
  std::int32_t dupnm;
};

// The steps in a row that an open has read, all in one direction (isam/calls/scanahead).
struct OfScan {
  int steps = 0;  // 0 after any other call
  int mode = 0;   // RD_NEXT or RD_PREV
  std::shared_ptr<ScanAhead> ahead;
};

// One open of a pair.
struct Open {
  OpenState state = OpenState::kFree;
  bool kept = false;    // closed inside a transaction, until that ends or the file is opened again
  bool logged = false;  // the log knows of it
  bool holds_semaphore = false;
  bool holds_file_lock = false;
  NumberSet locked;  // records that it has locked and not released
  OfTransaction transaction;
  std::uint16_t process = 0;  // low 16 bits of the process and user ids when it was made
  std::uint16_t user = 0;
  int mode = 0;             // access and option bits, plus the lock mode in the high byte
  std::uint32_t stamp = 0;  // change stamp last seen by this open
  OpenPair* file = nullptr;
  keydescr key{};                // the current index
  Position position;             // the position in it, between calls
  Cursor cursor;                 // ... and what a call works with
  OfScan scan;                   // its last steps may have left the position behind: leave_scan()
  std::vector<TakenItem> taken;  // by the change under way; keeps its memory from call to call
  // What the end of the transaction has to see to: records deleted, whose numbers and storage are
  // kept until then, and records that became shorter, which keep theirs.
  std::vector<std::int32_t> deleted;
  std::vector<std::int32_t> shortened;
  std::size_t committed = 0;  // so many at the front of `deleted`: nothing puts them back
  bool frees_again = false;   // freeing what ended transactions have left has failed before
  std::vector<std::int32_t>* listed = nullptr;  // which of the two this call has put its record on
};

extern Open* openp;
extern OpenPair* filep;
extern Dictionary* dictp;

// Whether what the current open changes can still be undone: locks and storage are kept.
[[nodiscard]] inline bool may_be_undone() {
  return txflag == kInTransaction && (openp->mode & (ISTRANS | ISNOLOG)) == ISTRANS;
}

// Marks the current file's dictionary copy as changed, to be written at the end of the call.
inline void dictmodify() { filep->unwritten.dictionary = true; }

// Byte widths that follow from the current file.
[[nodiscard]] inline int node_size() { return filep->geometry.idxsize + 1; }
[[nodiscard]] inline int slot_size(const Geometry& geometry) {
  return geometry.reclen + (geometry.varlen ? kVariableTrailer : kFixedTrailer);
}
[[nodiscard]] inline int slot_size() { return slot_size(filep->geometry); }

}  // namespace isam
