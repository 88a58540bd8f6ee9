// isread: isstart and isread.
#include "isam/base/errors.h"
#include "isam/base/walklimit.h"
#include "isam/calls/call.h"
#include "isam/calls/cursor.h"
#include "isam/calls/recordcalls.h"
#include "isam/calls/traced.h"
#include "isam/files/locks.h"
#include "isam/keys/keychain.h"
#include "isam/log/logfile.h"
#include "isam/records/datafile.h"
#include "isam/tree/btree.h"

namespace isam {
namespace {

struct Request {
  ReadMode mode;
  bool lock;
  bool skip;
  bool wait;
};

// 0, or -1 with 102.
int parse(const char* record, int mode, Request& request) {
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

bool goes_back(ReadMode mode) { return mode == ReadMode::kPrevious || mode == ReadMode::kLast; }

Direction direction_of(ReadMode mode) {
  return goes_back(mode) ? Direction::kPrevious : Direction::kNext;
}

// Moves to the item that a read asks for: 0, or -1.
int go_to_item(Cursor& cursor, const Byte* record, ReadMode mode) {
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
int move_on(Cursor& cursor, ReadMode mode) {
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

// Reads the record of the item, or of the next one in the direction of the read whose record is
// present: its length, or -1.
int read_present(Cursor& cursor, Byte* record, ReadMode mode) {
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

void make_item_current(Cursor& cursor) {
  take_found_item(cursor);
  cursor.bt.state |= kHasCurrent | kCurrentRead;
  isrecnum = cursor.bt.item.recptr;
}

// In a transaction what was only read can be released before what was changed.
LockList list_of_reads() {
  return txlog::transaction_is_open() ? LockList::kReleasable : LockList::kHeld;
}

enum class Outcome {
  kRead,
  kFailed,
  kKeptPlace,  // the record is locked; it is the current one all the same
  kMustWait,   // it is locked, and the read is to be tried again when it no longer is
};

Outcome read_record(Cursor& cursor, Byte* record, const Request& request) {
  if (go_to_item(cursor, record, request.mode) != 0) return Outcome::kFailed;
  cursor.bt.clear(kCurrentRead | kCurrentDeleted);
  const int length = read_present(cursor, record, request.mode);
  if (length < 0) return Outcome::kFailed;
  if (request.lock && lkrecord(cursor.treeitem.recptr, RecordLock::kTry, list_of_reads()) != 0) {
    if (iserrno != kLocked) return Outcome::kFailed;
    if (request.wait) return Outcome::kMustWait;
    if (!request.skip && !positions_anew(request.mode)) return Outcome::kFailed;
    make_item_current(cursor);
    return Outcome::kKeptPlace;
  }
  make_item_current(cursor);
  if ((openp->key.flags & KF_DUPS) != 0 &&
      btdups(cursor, openp->key, direction_of(request.mode)) != 0) {
    return Outcome::kFailed;
  }
  isreclen = length;
  return Outcome::kRead;
}

// Waits for the record of the item read last, outside the call, so that other processes go on
// meanwhile. 0 when the record is worth another try.
int wait_outside(Call& call) {
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

// Makes `k` the index meant by a start at an edge or at a key of `len` bytes: 0, or -1 with 102 or
// 103.
int selected_key(keydescr& k, int len, bool edge) {
  if (len < 0 && !edge) return failed(kBadArgument);
  const bool is_current = kycompare(k, openp->key) == 0;
  if (is_current) {
    k.flags = openp->key.flags;
    k.keylen = openp->key.keylen;
    k.rootnode = openp->key.rootnode;
  } else if (k.nparts == 0) {
    k = keydescr{};
  } else if (kysearch(k, 0) < 0) {
    return failed_unless_set(kBadKey);
  }
  if (k.nparts == 0 || (edge && is_current)) return 0;
  return len >= 0 && len <= k.keylen && kyckstart(k, len) == 0 ? 0 : failed(kBadArgument);
}

int start(Cursor& cursor, keydescr& k, int len, const Byte* record, int mode) {
  const auto read_mode = static_cast<ReadMode>(mode);
  const bool edge = mode == RD_FIRST || mode == RD_LAST;
  if (mode < 0 || !positions_anew(read_mode) || (!edge && record == nullptr)) {
    return failed(kBadArgument);
  }
  if (selected_key(k, len, edge) != 0) return -1;
  openp->key = k;
  if (kposition(cursor, record, len, read_mode) != 0) return 0;
  isrecnum = cursor.bt.item.recptr;
  return 1;
}

int start_call(int isfd, keydescr* key, int len, char* record, int mode) {
  Call call{isfd, {.access = Access::kToRead, .shared = true}};
  if (!call) return refused_access('7');
  const int started = key == nullptr
                          ? failed(kBadArgument)
                          : start(call.cursor(), *key, len, reinterpret_cast<Byte*>(record), mode);
  if (started < 0) {
    call.cursor().bt = openp->position;
  } else if (started == 0) {
    call.cursor().bt.state = 0;
    call.cursor().bt.depth = -1;
  }
  return call.end();
}

// A failed read leaves the position where it was. A step to the next item that leads nowhere has
// status characters of its own, and so has any step that does so right after a call at the end.
void fail_to_read(Cursor& cursor, ReadMode mode, bool after_end) {
  cursor.bt = openp->position;
  const bool leads_nowhere = iserrno == kEndOfFile || iserrno == kNoCurrent;
  const bool is_step = mode == ReadMode::kNext || (after_end && !positions_anew(mode));
  if (!leads_nowhere || !is_step) return;
  isstat3 = '4';
  isstat4 = '6';
}

int read_call(int isfd, char* record, int mode) {
  const bool after_end = iserrno == kEndOfFile;  // of the call before
  while (true) {
    Call call{isfd, {.access = Access::kToRead, .shared = true}};
    if (!call) return refused_access('7');
    Request request{};
    Outcome outcome = Outcome::kFailed;
    if (parse(record, mode, request) == 0) {
      outcome = read_record(call.cursor(), reinterpret_cast<Byte*>(record), request);
    }
    if (outcome != Outcome::kMustWait) {
      if (outcome == Outcome::kFailed) fail_to_read(call.cursor(), request.mode, after_end);
      return call.end();
    }
    if (wait_outside(call) != 0) return -1;
  }
}

// What a read is given besides room for the record.
Carries carried_by(int mode) {
  const int low = mode & 0xFF;
  const bool by_key = low == RD_EQUAL || low == RD_GREAT || low == RD_GTEQ;
  return by_key ? Carries::kKeyAndReceives : Carries::kReceives;
}

}  // namespace
}  // namespace isam

using namespace isam;

extern "C" int isstart(int isfd, struct keydescr* key, int len, char* record, int mode) {
  const bool edge = mode == RD_FIRST || mode == RD_LAST;
  return traced("isstart", isfd, record, edge ? Carries::kNothing : Carries::kKey,
                [=] { return start_call(isfd, key, len, record, mode); });
}

extern "C" int isread(int isfd, char* record, int mode) {
  return traced("isread", isfd, record, carried_by(mode),
                [=] { return read_call(isfd, record, mode); });
}
