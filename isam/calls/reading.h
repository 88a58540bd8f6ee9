// reading: one read of one record, inside a call. It stands in a header so that each call that
// reads is compiled in one piece: isread is called a million times a second.
//
// Needs   the current open entered for reading
// Gives   the steps behind isread, and behind each record of a call that reads many
#pragma once

#include "isam/base/errors.h"
#include "isam/base/walklimit.h"
#include "isam/calls/call.h"
#include "isam/calls/cursor.h"
#include "isam/files/locks.h"
#include "isam/log/logfile.h"
#include "isam/records/datafile.h"
#include "isam/tree/btree.h"

namespace isam {

struct ReadRequest {
  ReadMode mode;
  bool lock;
  bool skip;  // a record locked by others becomes current, so that the next step passes it by
  bool wait;  // ... is waited for
};

enum class ReadOutcome {
  kRead,
  kFailed,
  kLockedCurrent,  // the record is locked; it is the current one all the same
  kMustWait,       // it is locked, and the read is to be tried again when it no longer is
};

static inline bool goes_back(ReadMode mode) {
  return mode == ReadMode::kPrevious || mode == ReadMode::kLast;
}

static inline Direction direction_of(ReadMode mode) {
  return goes_back(mode) ? Direction::kPrevious : Direction::kNext;
}

// Moves to the item that a read asks for: 0, or -1. A step forward from an item that was not read
// (isstart found it, or it follows one that is gone) stays there; a step back from it does so in
// the order of record numbers only.
static inline int go_to_item(Cursor& cursor, const Byte* record, ReadMode mode) {
  const keydescr& k = openp->key;
  const bool in_tree = k.nparts > 0;
  if (positions_anew(mode)) {
    if (kposition(cursor, record, 0, mode) != 0) return -1;
    return mode == ReadMode::kLast && in_tree ? btmove(cursor, k, Direction::kPrevious) : 0;
  }
  if (find_current(cursor, mode == ReadMode::kCurrent) != 0) return -1;
  const bool was_read = (cursor.bt.state & kCurrentRead) != 0;
  if (mode == ReadMode::kNext && (was_read || (cursor.bt.ends & kBeforeFirst) != 0)) {
    return btmove(cursor, k, Direction::kNext);
  }
  if (mode == ReadMode::kPrevious && (was_read || in_tree)) {
    return btmove(cursor, k, Direction::kPrevious);
  }
  return 0;
}

// Moves on from an item whose record is absent: 0 or -1.
static inline int move_on(Cursor& cursor, ReadMode mode) {
  if (openp->key.nparts > 0) return btmove(cursor, openp->key, direction_of(mode));
  const bool backwards = goes_back(mode);
  const std::int32_t number =
      next_present(cursor.treeitem.recptr + (backwards ? -1 : 1), backwards);
  if (number < 0) return -1;
  cursor.bt.item.recptr = number;
  btnumber(cursor, number);
  if (number == 0) cursor.bt.ends = backwards ? kBeforeFirst : kAfterLast;
  return 0;
}

// Reads the record of the item or, unless that very one is asked for, of the next in the direction
// of the read whose record is present: its length, or -1 with iserrno.
static inline int read_present(Cursor& cursor, Byte* record, ReadMode mode) {
  WalkLimit walk;
  while (true) {
    if (cursor.bt.ends != kOnItem) return failed(kEndOfFile);
    const int length = dataread(cursor.treeitem.recptr,
                                {record, static_cast<std::size_t>(filep->geometry.maxreclen)});
    if (length >= 0) return length;
    if (iserrno != 0) return -1;
    if (mode == ReadMode::kCurrent) return failed(kNoCurrent);
    if (mode == ReadMode::kEqual) return failed(kNoRecord);
    if (move_on(cursor, mode) != 0) return -1;
    if (walk.exceeded()) return failed(kCorrupted);
  }
}

static inline void make_item_current(Cursor& cursor) {
  take_found_item(cursor);
  cursor.bt.state |= kHasCurrent | kCurrentRead;
  isrecnum = cursor.bt.item.recptr;
}

// In a transaction what was only read can be released before what was changed.
static inline LockList list_of_reads() {
  return txlog::transaction_is_open() ? LockList::kReleasable : LockList::kHeld;
}

// What a read is asked for by `mode` and the open: 0, or -1 with 102, also without a `record`.
static inline int parse_read(const char* record, int mode, ReadRequest& request) {
  if (record == nullptr || mode < 0) return failed(kBadArgument);
  const int bits = mode & ~0xFF;
  const int low = mode & 0xFF;
  const bool both = (bits & RD_SKIPLOCK) != 0 && (bits & RD_WAIT) != 0;
  const bool known = (bits & ~(RD_LOCK | RD_SKIPLOCK | RD_WAIT)) == 0;
  if (low > RD_GTEQ || !known || both) return failed(kBadArgument);
  request = {static_cast<ReadMode>(low), (bits & RD_LOCK) != 0 || (openp->mode & ISAUTOLOCK) != 0,
             (bits & RD_SKIPLOCK) != 0, (bits & RD_WAIT) != 0};
  return 0;
}

// Reads a record and makes it current; all but kRead leave iserrno.
static inline ReadOutcome read_record(Cursor& cursor, Byte* record, const ReadRequest& request) {
  if (go_to_item(cursor, record, request.mode) != 0) return ReadOutcome::kFailed;
  cursor.bt.clear(kCurrentRead | kCurrentDeleted);
  const int length = read_present(cursor, record, request.mode);
  if (length < 0) return ReadOutcome::kFailed;
  if (request.lock && lkrecord(cursor.treeitem.recptr, RecordLock::kTry, list_of_reads()) != 0) {
    if (iserrno != kLocked) return ReadOutcome::kFailed;
    if (request.wait) return ReadOutcome::kMustWait;
    // A step stays where it was, unless it is to skip; who positions anew comes to the record.
    if (!request.skip && !positions_anew(request.mode)) return ReadOutcome::kFailed;
    make_item_current(cursor);
    return ReadOutcome::kLockedCurrent;
  }
  make_item_current(cursor);
  if ((openp->key.flags & KF_DUPS) != 0 &&
      btdups(cursor, openp->key, direction_of(request.mode)) != 0) {
    return ReadOutcome::kFailed;
  }
  isreclen = length;
  return ReadOutcome::kRead;
}

// A failed read leaves the position where it was. A step to the next item that leads nowhere has
// status characters of its own, and so has any step that does so right after a call at the end.
static inline void fail_to_read(Cursor& cursor, ReadMode mode, bool after_end) {
  cursor.bt = openp->position;
  const bool leads_nowhere = iserrno == kEndOfFile || iserrno == kNoCurrent;
  const bool is_step = mode == ReadMode::kNext || (after_end && !positions_anew(mode));
  if (!leads_nowhere || !is_step) return;
  isstat3 = '4';
  isstat4 = '6';
}

// Reads as a call is asked to by `mode`, of which it makes `request`. `after_end`: the call before
// met the end.
static inline ReadOutcome read_asked(Cursor& cursor, char* record, int mode, bool after_end,
                                     ReadRequest& request) {
  ReadOutcome outcome = ReadOutcome::kFailed;
  if (parse_read(record, mode, request) == 0) {
    outcome = read_record(cursor, reinterpret_cast<Byte*>(record), request);
  }
  if (outcome == ReadOutcome::kFailed) fail_to_read(cursor, request.mode, after_end);
  return outcome;
}

// Waits for the record of the item read last, outside the call, so that other processes go on
// meanwhile. 0 when the record is worth another try. The position is that before the read.
static inline int wait_outside(Call& call) {
  const std::int32_t number = call.cursor().treeitem.recptr;
  call.cursor().bt = openp->position;
  clear_errors();
  static_cast<void>(call.end());
  release_semaphore();
  if (lkrecord(number, RecordLock::kWait) != 0) {
    set_status("9090");
    return -1;
  }
  return lkrecord(number, RecordLock::kRelease);
}

}  // namespace isam
