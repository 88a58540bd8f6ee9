#include "isam/calls/change.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "isam/base/errors.h"
#include "isam/base/walklimit.h"
#include "isam/calls/heldback.h"
#include "isam/calls/keptposition.h"
#include "isam/calls/recorditems.h"
#include "isam/files/files.h"
#include "isam/files/locks.h"
#include "isam/keys/keytable.h"
#include "isam/log/audit.h"
#include "isam/log/logfile.h"
#include "isam/log/logwriter.h"
#include "isam/pool/buffers.h"
#include "isam/pool/extent.h"
#include "isam/records/datafile.h"
#include "isam/records/freelists.h"
#include "isam/tree/btree.h"

namespace isam {
namespace {

// A change locks its record under ISAUTOLOCK, and until the end of a transaction that may undo it.
// Else it is enough that nobody else has it locked.
int lock_for_change(std::int32_t number) {
  const bool keeps = (openp->mode & ISAUTOLOCK) != 0 || may_be_undone();
  if (may_be_undone()) filep->locks.kept = true;
  if (keeps) return lkrecord(number, RecordLock::kTry);
  if (filep->locks.held.contains(number) || filep->locks.releasable.contains(number)) return 0;
  return lkrecord(number, RecordLock::kTest);
}

constexpr int kTriesForNumber = 4;

// Numbers taken off the list of free ones that the call has no use for. They go back when it has
// found one or given up, not before, for the list would give the same ones again; the last first,
// so that the list is as it was.
class NumbersNotUsed {
 public:
  NumbersNotUsed() = default;
  NumbersNotUsed(const NumbersNotUsed&) = delete;
  NumbersNotUsed& operator=(const NumbersNotUsed&) = delete;
  ~NumbersNotUsed() {
    const KeepError keep;
    while (count_ > 0) freerec(numbers_[--count_], FreeList::kRecords);
  }
  void add(std::int32_t number) { numbers_[count_++] = number; }

 private:
  std::array<std::int32_t, kTriesForNumber> numbers_{};
  std::size_t count_ = 0;
};

// What a number from the list of free ones is good for.
enum class Offer {
  kUsable,       // it is free, and locked where that is due
  kInUse,        // the list is damaged: its record is present
  kRefers,       // a process was killed that had deleted its record: its slot refers to storage
  kLockedThere,  // another process has it locked
  kUnknown,      // that cannot be found out; iserrno tells why
};

Offer look_at_offer(std::int32_t number) {
  const int present = datacheck(number);
  if (present > 0) return Offer::kInUse;
  const int refers = present < 0 ? -1 : datarefers(number);
  if (refers < 0) return Offer::kUnknown;
  if (refers > 0) return Offer::kRefers;
  if (lock_for_change(number) == 0) return Offer::kUsable;
  return iserrno == kLocked ? Offer::kLockedThere : Offer::kUnknown;
}

// allocdatrec() where the first number offered is not usable.
[[gnu::cold]] std::int32_t another_number(std::int32_t number, Offer offer) {
  NumbersNotUsed not_used;
  Code reason = kCorrupted;
  std::optional<StepLimit> referring;
  for (int tries = 1;; ++tries) {
    if (offer == Offer::kRefers) {
      if (!referring) referring.emplace(slots_in_file());
      if (!referring->exceeded()) --tries;
    } else if (offer != Offer::kInUse) {
      not_used.add(number);
      if (offer == Offer::kUnknown) break;
      reason = kLocked;
      clear_errors();
    }
    if (tries == kTriesForNumber) break;
    number = allocrec(FreeList::kRecords);
    if (number < 0) break;
    offer = look_at_offer(number);
    if (offer == Offer::kUsable) return number;
  }
  return failed_unless_set(reason);
}

// A number to write a new record under, or -1: with the code of a deeper routine, if one has set
// any, else with 107 when a number was locked, else with 105. Numbers of records that are present,
// and those whose slots refer to storage, are passed by for good. Of the latter a repair may have
// left many: they do not count as tries.
std::int32_t allocdatrec() {
  const std::int32_t number = allocrec(FreeList::kRecords);
  if (number < 0) return failed_unless_set(kCorrupted);
  const Offer offer = look_at_offer(number);
  return offer == Offer::kUsable ? number : another_number(number, offer);
}

// Room for one more number on a list of the transaction, before anything is changed: 0, or -1 with
// 116.
int reserve_entry(std::vector<std::int32_t>& list) {
  try {
    if (list.size() == list.capacity()) list.reserve(2 * list.size() + 16);
  } catch (const std::bad_alloc&) {
    return failed(kNoMemory);
  }
  return 0;
}

// Comes after all that can fail but the writing. If that fails, the call takes the number off again
// (unlist).
void put_on(std::vector<std::int32_t>& list, std::int32_t number) {
  list.push_back(number);
  openp->listed = &list;
}

// A number for a new record: 0, or -1. A given one must be free.
int take_number(std::int32_t given, std::int32_t& number) {
  number = given > 0 ? given : allocdatrec();
  if (number < 0) return -1;
  return given > 0 && datacheck(given) != 0 ? failed_unless_set(kCorrupted) : 0;
}

// Logs a new record and writes its slot. One with a given number may be a deleted record that is
// put back: its slot may refer to the storage kept for it, which datawrite() uses again. Any other
// record has a slot that refers to none (datacreate).
int store(std::int32_t number, ConstBytes record, bool given) {
  if (txlog::logs_changes() && txlog::log_inserted(number, record) != 0) return -1;
  return given ? datawrite(number, record, true) : datacreate(number, record);
}

// Takes back what a call has added to the first `count` indexes; the next one, or a later step, has
// failed.
[[gnu::cold]] void take_added_back(Cursor& cursor, const Keys& keys, std::size_t count,
                                   ConstBytes record, std::int32_t number) {
  failure_detail = {.error = kDuplicate, .index = static_cast<int>(count) + 1};
  const KeepError keep;
  remove_items(cursor, keys, count, record, number);
}

[[gnu::cold]] void give_number_back(std::int32_t number) {
  const KeepError keep;
  freerec(number, FreeList::kRecords);
  lkrecord(number, RecordLock::kRelease);
}

// Audits a change that was made. When that fails, the change stays; the error in iserrno fails the
// call at its end.
void audit(txlog::AuditLetter letter, std::int32_t number, ConstBytes record) {
  if (txlog::audoutput(letter, number, record) != 0) txlog::keep_unaudited();
}

// Whether a record that becomes shorter keeps its storage until the transaction ends.
bool keeps_storage(ConstBytes old, ConstBytes record) {
  return record.size() < old.size() && (may_be_undone() || txlog::logstate.in_rollback);
}

int replace_record(std::int32_t number, ConstBytes old, ConstBytes record) {
  const bool keeps = keeps_storage(old, record);
  if (keeps && reserve_entry(openp->shortened) != 0) return -1;
  filep->call.may_hold = may_be_held_back();
  const txlog::When when = filep->call.may_hold ? txlog::When::kMayWait : txlog::When::kNow;
  if (txlog::logs_changes() && txlog::log_updated(number, old, record, when) != 0) return -1;
  // The same bytes need no writing, which could move their storage.
  const bool same = filep->geometry.varlen && std::ranges::equal(old, record);
  if (!same && datawrite(number, record, !keeps) != 0) return -1;
  if (keeps) put_on(openp->shortened, number);
  audit(txlog::AuditLetter::kBefore, number, old);
  audit(txlog::AuditLetter::kAfter, number, record);
  return 0;
}

// Its number and storage are kept for as long as the deletion can be undone.
int remove_for_now(std::int32_t number) {
  if (dataclear(number) != 0) return -1;
  put_on(openp->deleted, number);
  return 0;
}

// Its storage goes before its number: a node that becomes free with the storage may then serve the
// list of free numbers.
int remove_at_once(std::int32_t number, ConstBytes old) {
  // Where no node is free that list may need a new one: room for it is taken before the storage is
  // gone.
  const std::int64_t next = std::int64_t{dictp->d_nextnode()} + 1;
  if (dictp->d_freenode() == 0 && reserve_nodes(next, next) != 0) return -1;
  if (datadelete(number) != 0) return -1;
  if (freerec(number, FreeList::kRecords) == 0) {
    lkrecord(number, RecordLock::kRelease);
    return 0;
  }
  const KeepError keep;
  const RoomIsThere for_old;  // putting the old record back takes no more room
  clear_errors();
  static_cast<void>(datawrite(number, old, true));
  return -1;
}

int log_and_remove(std::int32_t number, ConstBytes old) {
  if (txlog::logs_changes() && txlog::log_deleted(number, old) != 0) return -1;
  return may_be_undone() ? remove_for_now(number) : remove_at_once(number, old);
}

// Other changes are audited once they are made; a deletion is audited before it is logged, and its
// entry stays whatever becomes of it. When the entry cannot be written, the record is deleted all
// the same, and the error of the entry fails the call at its end.
int remove_record(std::int32_t number, ConstBytes old) {
  const bool audited = txlog::audoutput(txlog::AuditLetter::kDeleted, number, old) == 0;
  const std::int32_t reason = iserrno;
  const std::int32_t place = iserrio;
  clear_errors();
  if (log_and_remove(number, old) != 0) return -1;
  if (audited) return 0;
  iserrno = reason;
  iserrio = place;
  txlog::keep_unaudited();
  return 0;
}

Bytes record_room() {
  return temprecord().first(static_cast<std::size_t>(filep->geometry.maxreclen));
}

}  // namespace

std::int32_t wrtrecord(Cursor& cursor, ConstBytes record, Current current, std::int32_t given) {
  const Keys* keys = file_keys();
  if (keys == nullptr || txlog::audopen() != 0) return -1;
  WaysAhead ways;
  ways.find(*keys, record, Search::kInsert);
  std::int32_t number = 0;
  if (take_number(given, number) != 0) return -1;
  KeptPosition position{cursor};
  // add_items() makes the item of the current index current. In the order of record numbers there
  // is no such index.
  if (current == Current::kMoves && openp->key.nparts == 0) {
    Item item;
    item.recptr = number;
    position.move_to_new(item);
  }
  const std::size_t added = add_items(cursor, *keys, record, number, ways, current, position);
  if (added == keys->size() && store(number, record, given > 0) == 0) {
    audit(txlog::AuditLetter::kAdded, number, record);
    return number;
  }
  position.stay();
  take_added_back(cursor, *keys, added, record, number);
  if (given == 0) give_number_back(number);
  return -1;
}

int rewrecord(Cursor& cursor, std::int32_t number, ConstBytes old, ConstBytes record,
              Current current) {
  const Keys* keys = file_keys();
  if (keys == nullptr || txlog::audopen() != 0 || lock_for_change(number) != 0) return -1;
  KeptPosition position{cursor};
  Replacement replacement{cursor, *keys, number, old, record};
  if (replacement.run(current, position) == 0) {
    if (replace_record(number, old, record) == 0) return 0;
    replacement.undo();
  }
  position.stay();
  return -1;
}

int delrecord(Cursor& cursor, std::int32_t number, ConstBytes old) {
  const Keys* keys = file_keys();
  if (keys == nullptr || txlog::audopen() != 0 || lock_for_change(number) != 0) return -1;
  if (may_be_undone() && reserve_entry(openp->deleted) != 0) return -1;
  const KeptPosition position{cursor};
  filep->call.gives_number = true;  // before any page changes: it decides in what order they go
  TakenItems items{cursor, *keys, number, old};
  if (items.take_all() == 0 && remove_record(number, old) == 0) return 0;
  items.put_all_back();
  return -1;
}

FoundRecord with_key(const FoundRecord& found, const Item& item, const keydescr& k) {
  if (found.number < 0) return found;
  if (itcompare(item_of(found.bytes, found.number, k), item, KeyOrder{k}) == 0) return found;
  failed(kCorrupted);
  return {};
}

FoundRecord getrecord(Cursor& cursor, const Byte* record) {
  const Keys* keys = file_keys();
  if (keys == nullptr) return {};
  if (keys->empty() || keys->front().nparts == 0) {
    failed(kNoPrimaryKey);
    return {};
  }
  const keydescr& k = keys->front();
  Item wanted;
  itmake(record, wanted, k);
  std::int32_t number = -1;
  {
    const KeptPosition position{cursor};
    if (btsearch(cursor, wanted, k, 0, Search::kRead) != 0) return {};
    dataexpect(cursor.treeitem.recptr);
    if (cursor.bt.ends == kOnItem && itcompare(wanted, cursor.treeitem, KeyOrder{k}) == 0) {
      number = cursor.treeitem.recptr;
    }
  }
  return with_key(getcurrent(number), wanted, k);
}

FoundRecord getcurrent(std::int32_t number) {
  if (number < 1 || number > dictp->d_nextdata()) {
    failed(kNoRecord);
    return {};
  }
  const Bytes room = record_room();
  const int length = dataread(number, room);
  if (length < 0) {
    failed_unless_set(kNoRecord);
    return {};
  }
  return {number, room.first(static_cast<std::size_t>(length))};
}

}  // namespace isam
