#include "isam/calls/call.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "isam/base/errors.h"
#include "isam/calls/filelocale.h"
#include "isam/calls/heldback.h"
#include "isam/calls/process.h"
#include "isam/calls/scanahead.h"
#include "isam/files/dictionary.h"
#include "isam/files/files.h"
#include "isam/files/locks.h"
#include "isam/log/logfile.h"
#include "isam/log/logwriter.h"
#include "isam/pool/buffers.h"
#include "isam/pool/extent.h"
#include "isam/pool/mark.h"
#include "isam/tree/btree.h"

namespace isam {

int batchflag = 0;

namespace {

constexpr int kBatchCalls = 7;  // at this count (batchflag) the semaphore goes: after six calls

std::uint64_t use_counter = 1;  // of a file that has not been used it is 0

}  // namespace

void note_use() {
  if (filep->lastuse != use_counter) filep->lastuse = ++use_counter;
}

bool lets_go() { return batchflag == 0 || batchflag + 1 >= kBatchCalls; }

bool is_alone() { return (openp->mode & ISEXCLLOCK) != 0 || filep->locks.exclusives > 0; }

namespace {

// An exclusive open's dictionary may lag behind by this many calls, as its pages do.
constexpr int kCallsUnwritten = 256;

// `open` is there for another access only; null when there is none.
int refuse(Open* open) {
  if (open != nullptr) isstat2 = '4';
  return failed(kNotOpen);
}

// In batch mode another open may still have its file held up.
void end_other_batch(const Open& open) {
  if (batchflag == 0 || openp == nullptr || openp == &open) return;
  if (openp->holds_semaphore) {
    release_semaphore();
    batchflag = 1;
  }
}

// A late write has failed since the last call: -1 with its error, 0 in a call that passes it by.
int tell_failed_write(Entry entry) {
  if (entry.kept_too || entry.goes_on) return 0;
  const FailedWrite failure = std::exchange(filep->unwritten.failed, {});
  iserrno = failure.error;
  iserrio = failure.place;
  return -1;
}

// A late write that failed is told; while a bulk load is under way nothing else changes the pair.
int take_exclusive(Entry entry) {
  if (filep->unwritten.failed.error != 0) return tell_failed_write(entry);
  const bool changes = (static_cast<int>(entry.access) & static_cast<int>(Access::kToWrite)) != 0;
  return changes && !entry.loads && !entry.goes_on ? failed(kFileInUse) : 0;
}

int take_file(Entry entry) {
  if (filep->locks.exclusives > 0) {
    if (filep->unwritten.failed.error == 0 && filep->load == nullptr) [[likely]]
      return 0;
    return take_exclusive(entry);
  }
  if (openp->holds_semaphore) {
    if (!entry.holds_on) release_held_back();
    return 0;
  }
  // In batch mode the lock also serves the calls that follow, which may change the file.
  const bool shared = entry.shared && batchflag == 0;
  if (lksemaphore(shared ? Semaphore::kShared : Semaphore::kExclusive) != 0) return -1;
  filep->unwritten.dictionary = false;  // of a call that was given up
  return dictread();
}

// What the file is like before the call: a failure goes back to it, and what lies beyond is new.
void note_beginning() {
  filep->call = {.nodes_before = dictp->d_nextnode(),
                 .numbers_before = dictp->d_nextdata(),
                 .free_list_before = dictp->d_freedata(),
                 .free_nodes_before = dictp->d_freenode()};
}

// By the change stamp: after a change through another open of this process the position has no path
// any more; after one of another process the cached pages are stale, too.
void notice_changes() {
  const std::uint32_t stamp = dictp->d_modcount();
  if (stamp != openp->stamp) {
    openp->stamp = stamp;
    openp->position.depth = -1;
    openp->cursor.place = {};
  }
  if (stamp != filep->cached.stamp) {
    filep->cached.stamp = stamp;
    bfignor(*filep);
  }
}

// The position is where the open's last call has left it; what that met of neighbours is over.
void stay_without_neighbour() {
  openp->position.clear(kSameKeyNearby);
  openp->cursor.bt = openp->position;
}

int open_data() {
  if (filep->data.fd < 0 && reopen_data(*filep) != 0) {
    if (iserrno == ENOENT) {
      isstat3 = '3';
      isstat4 = '5';
    }
    return -1;
  }
  note_use();
  return 0;
}

int release_automatic_lock(Entry entry) {
  if ((openp->mode & ISAUTOLOCK) == 0 || entry.keeps_auto_lock) return 0;
  return release_locks();
}

int enter(Open* open, Entry entry) {
  if (open == nullptr || (open->kept && !entry.kept_too)) return refuse(nullptr);
  end_other_batch(*open);
  make_current(*open);
  if (openp->scan.steps != 0) leave_scan(*openp);
  const int access = open->mode + 1;
  const int needed = static_cast<int>(entry.access);
  if ((access & needed) != needed) return refuse(open);
  if (take_file(entry) != 0) return -1;
  note_beginning();
  notice_changes();
  stay_without_neighbour();
  if (!entry.any_locale && check_locale() != 0) return -1;
  return open_data() != 0 ? -1 : release_automatic_lock(entry);
}

// The files do not have the changes of this call: path and dictionary copy are good no more.
void forget_call() {
  const KeepError keep;
  openp->cursor.bt.depth = -1;
  filep->unwritten.dictionary = false;
  if (dictread() == 0) filep->cached.stamp = openp->stamp = dictp->d_modcount();
}

void write_mark() {
  const KeepError keep;
  if (set_mark(*filep) != 0) bfnote_failure(*filep);
}

// What an exclusive open changes may wait. A write that fails is told by the next call.
void write_some() {
  if (is_missing(filep->mark.state)) write_mark();
  bfwrite_direct();
  if (++filep->unwritten.calls < kCallsUnwritten) return;
  const KeepError keep;
  if (dictwrite() != 0) bfnote_failure(*filep);
  bfease(false);
}

// Forgets the changes of a call that failed: whether it has. Not those that are to stay, may wait,
// or are in the file in part. (No record is on a list of its transaction yet: that comes last.)
bool take_back() {
  const bool wanted = iserrno != 0 && !filep->call.keeps_changes && !is_alone();
  if (!wanted || bfdiscard(*filep) != 0) return false;
  filep->call.page_changed = false;
  forget_call();
  return true;
}

// All that a call changed, while others wait: 0 or -1.
int commit() {
  if (bfcommit(*filep) != 0) return -1;
  filep->unwritten.dictionary = false;
  return 0;
}

// The record that the call put on a list of its transaction is as it was: it leaves the list.
void unlist() {
  if (openp->listed != nullptr) std::exchange(openp->listed, nullptr)->pop_back();
}

// Writes what has changed, or takes it back after a failure. Its own failure is in iserrno.
void write_changes() {
  if (!filep->call.page_changed && !filep->unwritten.dictionary) return;
  if (take_back()) return;
  const bool changed = filep->call.page_changed;
  if (changed) {
    filep->call.page_changed = false;
    openp->stamp = ++filep->cached.stamp;
    dictp->set_d_modcount(filep->cached.stamp);
    dictmodify();
  }
  if (is_alone()) {
    write_some();
  } else if ((changed ? commit() : dictwrite()) != 0) {
    forget_call();
    unlist();
  }
  openp->listed = nullptr;
}

// The end of a change while something is held back. What is changed now may be, too; else it is
// written behind what is. Without a change all waits, until the file is let go.
void write_or_hold_back() {
  const bool changed = filep->call.page_changed || filep->unwritten.dictionary;
  const bool waits = changed && hold_back();
  const bool goes_out = !waits && (changed || (iserrno != 0 && txlog::logstate.change_logged));
  if (goes_out || (lets_go() && !filep->call.more_follow)) {
    write_held_back();
  } else if (!filep->call.more_follow) {
    announce_held_back();
  }
  if (!waits) write_changes();
}

// What the call has logged is withdrawn when the change was not made: it was `undone`, or could not
// be written. What may be written late counts as made.
void withdraw_unless_made(bool undone) {
  const bool made = !undone && (iserrno == 0 || is_alone());
  txlog::logstate.change_logged = false;
  if (!made) txlog::withdraw_change();
}

// The last two characters stay as a call has set them.
void set_unless_set(char third, char fourth) {
  if (isstat3 != '0') return;
  isstat3 = third;
  isstat4 = fourth;
}

[[gnu::cold]] void set_characters_of_failure() {
  const auto set_first = [](char first, char second) {
    isstat1 = first;
    isstat2 = second;
  };
  switch (iserrno) {
    case kDuplicate:
      return set_status("2222");
    case kEndOfFile:
      set_first('1', '0');
      return set_unless_set('1', '0');
    case kNoRecord:
      return set_status("2323");
    case kNoCurrent:
      set_first('2', '1');
      return set_unless_set('4', '3');
    default:
      set_first('9', '0');
      return set_unless_set('9', '0');
  }
}

void set_status_characters() {
  if (iserrno != 0) return set_characters_of_failure();
  set_status((openp->cursor.bt.state & kSameKeyNearby) != 0 ? "0202" : "0000");
}

}  // namespace

int isenter(int isfd, Entry entry) {
  know_process();
  clear_errors();
  set_status("0000");
  if (enter(open_of(isfd), entry) == 0) return 0;
  if (openp != nullptr && openp == open_of(isfd)) release_semaphore();
  isstat1 = '9';
  if (isstat3 == '0') isstat3 = '9';
  return -1;
}

int reread_dictionary(Entry entry) {
  if (dictread() != 0) return -1;
  note_beginning();
  notice_changes();
  return entry.any_locale ? 0 : check_locale();
}

int begin_change() {
  clear_errors();
  set_status("0000");
  if (filep->unwritten.failed.error != 0) return tell_failed_write({});
  note_beginning();
  stay_without_neighbour();
  return release_automatic_lock({});
}

int write_delayed() {
  const std::int32_t before = iserrno;
  bfflush(*filep);
  if (filep->unwritten.dictionary && dictwrite() != 0) bfnote_failure(*filep);
  const FailedWrite last = std::exchange(filep->unwritten.failed, {});
  const FailedWrite& lost = filep->unwritten.lost.error != 0 ? filep->unwritten.lost : last;
  if (lost.error != 0 && before == 0) {
    iserrno = lost.error;
    iserrio = lost.place;
  }
  return lost.error != 0 ? -1 : 0;
}

int write_and_unmark() {
  if (write_delayed() != 0) return -1;
  cut_unused_room();
  return clear_mark(*filep);
}

void forget_exclusive() {
  filep->unwritten.failed = filep->unwritten.lost = {};
  filep->unwritten.pages_lost = false;
  filep->mark = {};
  forget_extent();
}

int write_handed_out() {
  const bool was_changed = std::exchange(filep->unwritten.dictionary, true);
  if (!is_alone() || dictwrite() == 0) return 0;
  filep->unwritten.dictionary = was_changed;
  return -1;
}

void end_change() {
  const bool undone = iserrno != 0;
  bfwrite_due();
  if (txlog::logstate.holds_back) {
    write_or_hold_back();
  } else {
    write_changes();
  }
  if (txlog::logstate.change_logged) withdraw_unless_made(undone);
  Position& bt = openp->cursor.bt;
  if (iserrno != 0 && !undone) {  // what failed is the writing
    bt = openp->position;
    bt.depth = -1;
  }
  openp->position = bt;
}

int isexit() {
  end_change();
  set_status_characters();
  if (lets_go()) {
    release_semaphore();
    if (batchflag != 0) batchflag = 1;
  } else {
    ++batchflag;
  }
  return iserrno == 0 ? 0 : -1;
}

void release_semaphore() {
  if (!openp->holds_semaphore) return;
  const KeepError keep;
  release_held_back();
  lksemaphore(Semaphore::kRelease);
}

}  // namespace isam
