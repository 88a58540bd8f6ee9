#include "isam/change.h"

#include <algorithm>
#include <array>
#include <utility>

#include "isam/btree.h"
#include "isam/buffers.h"
#include "isam/datafile.h"
#include "isam/errors.h"
#include "isam/extent.h"
#include "isam/files.h"
#include "isam/freelists.h"
#include "isam/keytable.h"
#include "isam/locks.h"
#include "txlog/audit.h"
#include "txlog/logfile.h"
#include "txlog/logwriter.h"

namespace isam {
namespace {

using Keys = std::vector<keydescr>;

Item item_of(ConstBytes record, std::int32_t number, const keydescr& k) {
  Item item;
  itmake(record.data(), item, k);
  item.recptr = number;
  return item;
}

bool is_current_key(const keydescr& k) { return kycompare(k, openp->key) == 0; }

// What changing the trees leaves of the position: it is put back, its path is no longer valid.
class KeptPosition {
 public:
  KeptPosition() = default;
  KeptPosition(const KeptPosition&) = delete;
  KeptPosition& operator=(const KeptPosition&) = delete;
  ~KeptPosition() {
    bt = openp->position;
    bt.state |= nearby_;
    bt.depth = -1;
    if (!moved_) return;
    bt.item = item_;
    bt.ends = kOnItem;
    bt.state = static_cast<std::uint16_t>((bt.state & ~kCurrentDeleted) | moved_state_);
  }

  // An insertion met an equal key.
  void note_neighbour() { nearby_ |= bt.state & kSameKeyNearby; }
  // A new record becomes current as if it had been read.
  void move_to_new(const Item& item) {
    move_to(item);
    moved_state_ = kHasCurrent | kCurrentRead;
  }
  void move_to(const Item& item) {
    item_ = item;
    moved_ = true;
  }
  void stay() { moved_ = false; }

 private:
  std::uint16_t nearby_ = 0;
  std::uint16_t moved_state_ = kHasCurrent;
  bool moved_ = false;
  Item item_;
};

// A change locks its record; outside ISAUTOLOCK it is enough that nobody else has it locked.
int lock_for_change(std::int32_t number) {
  const bool keeps = (openp->mode & ISAUTOLOCK) != 0 || may_be_undone();
  if (may_be_undone()) filep->keeps_locks = true;
  if (keeps) return lkrecord(number, RecordLock::kTry);
  if (filep->held.contains(number) || filep->releasable.contains(number)) return 0;
  return lkrecord(number, RecordLock::kTest);
}

// A number to write a new record under. Numbers of records that are present are taken off the list
// for good, those that another process has locked go back.
std::int32_t allocdatrec() {
  constexpr int kTries = 4;
  std::array<std::int32_t, kTries> locked{};
  std::size_t locked_count = 0;
  std::int32_t number = -1;
  Code reason = kCorrupted;
  for (int tries = 0; tries < kTries; ++tries) {
    number = allocrec(FreeList::kRecords);
    if (number < 0) break;
    const int present = datacheck(number);
    if (present == 0 && lock_for_change(number) == 0) break;
    if (present < 0 || (present == 0 && iserrno != kLocked)) {
      const KeepError keep;
      freerec(number, FreeList::kRecords);
      number = -1;
      break;
    }
    if (present == 0) {
      clear_errors();
      reason = kLocked;
      locked[locked_count++] = number;
    }
    number = -1;
  }
  if (number < 0) failed_unless_set(reason);
  const KeepError keep;
  while (locked_count > 0) freerec(locked[--locked_count], FreeList::kRecords);
  return number;
}

// What a step that undoes another could not do is told as a lost write is.
void note_undone(int result) {
  if (result != 0) bfnote_failure(*filep);
}

void remove_added(const keydescr& k, ConstBytes record, std::int32_t number) {
  Item item = item_of(record, number, k);
  note_undone(btdelitem(item, k));
}

void remove_items(const Keys& keys, std::size_t count, ConstBytes record, std::int32_t number) {
  while (count > 0) remove_added(keys[--count], record, number);
}

// The items that the change under way has taken out of indexes; kept between calls for its memory.
struct Taken {
  std::size_t index;
  std::int32_t dupnm;
};
std::vector<Taken> taken;

// Before anything is changed: 0, or -1 with 116.
int begin_taking(const Keys& keys) {
  taken.clear();
  try {
    taken.reserve(keys.size());
  } catch (const std::bad_alloc&) {
    return failed(kNoMemory);
  }
  return 0;
}

int take_out(const Keys& keys, std::size_t index, Item& item) {
  if (btdelitem(item, keys[index]) != 0) return -1;
  taken.push_back({index, item.dupnm});
  return 0;
}

// Takes all items of a record out: 0, or -1 at the first that cannot be.
int take_items(const Keys& keys, ConstBytes record, std::int32_t number) {
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (keys[i].nparts == 0) continue;
    Item item = item_of(record, number, keys[i]);
    if (take_out(keys, i, item) != 0) return -1;
  }
  return 0;
}

// Puts the item taken out last back where it stood.
void put_back_last(const Keys& keys, ConstBytes record, std::int32_t number) {
  const keydescr& k = keys[taken.back().index];
  Item item = item_of(record, number, k);
  item.dupnm = taken.back().dupnm;
  taken.pop_back();
  note_undone(btreturnitem(item, k));
}

// Adds a record's items to the first indexes, up to one that refuses it: how many were added.
std::size_t add_items(const Keys& keys, ConstBytes record, std::int32_t number, Current current,
                      KeptPosition& position) {
  std::size_t added = 0;
  for (; added < keys.size(); ++added) {
    Item item = item_of(record, number, keys[added]);
    if (btadditem(item, keys[added]) != 0) break;
    position.note_neighbour();
    if (current == Current::kMoves && is_current_key(keys[added])) position.move_to_new(item);
  }
  return added;
}

// The replacement of one record's items by another's, index by index.
class Replacement {
 public:
  Replacement(const Keys& keys, std::int32_t number, ConstBytes old, ConstBytes record)
      : keys_(keys), number_(number), old_(old), record_(record) {}

  // Unique indexes come first: they are the ones that may refuse.
  int run(Current current, KeptPosition& position) {
    if (begin_taking(keys_) != 0) return -1;
    if (change(false, current, position) == 0 && change(true, current, position) == 0) return 0;
    undo();
    return -1;
  }

  void undo() {
    const KeepError keep;
    const RoomIsThere its_own;
    while (!taken.empty()) {
      const keydescr& k = keys_[taken.back().index];
      put_back_last(keys_, old_, number_);
      remove_added(k, record_, number_);
    }
  }

 private:
  int change(bool dups, Current current, KeptPosition& position) {
    for (std::size_t i = 0; i < keys_.size(); ++i) {
      const keydescr& k = keys_[i];
      if (((k.flags & KF_DUPS) != 0) != dups || k.nparts == 0) continue;
      Item old = item_of(old_, number_, k);
      Item fresh = item_of(record_, number_, k);
      if (itcompare(old, fresh, KeyOrder{k}) == 0) continue;
      if (replace(i, old, fresh) != 0) return -1;
      position.note_neighbour();
      if (current == Current::kMoves && is_current_key(k)) position.move_to(fresh);
    }
    return 0;
  }

  int replace(std::size_t index, Item& old, Item& fresh) {
    const keydescr& k = keys_[index];
    if (btadditem(fresh, k) != 0) return -1;
    const std::uint16_t nearby = bt.state & kSameKeyNearby;
    if (take_out(keys_, index, old) == 0) {
      bt.state |= nearby;
      return 0;
    }
    const KeepError keep;
    note_undone(btdelitem(fresh, k));
    return -1;
  }

  const Keys& keys_;
  std::int32_t number_;
  ConstBytes old_;
  ConstBytes record_;
};

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

// A record put back may find the storage that was kept for it.
int store(std::int32_t number, ConstBytes record, bool given) {
  const bool logged = !txlog::logs_changes() || txlog::log_inserted(number, record) == 0;
  if (!logged) return -1;
  return given ? datawrite(number, record, true) : datacreate(number, record);
}

// A call of a shared open is taken back as a whole; until then the list is as it was.
void give_number_back(std::int32_t number, std::int32_t highest) {
  if (number > highest || filep->exclusives > 0) {
    freerec(number, FreeList::kRecords);
  } else {
    enlist(number, FreeList::kRecords);
  }
  lkrecord(number, RecordLock::kRelease);
}

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
  if (txlog::logs_changes() && txlog::log_updated(number, old, record) != 0) return -1;
  // Storage that is written anew may go elsewhere.
  const bool same = filep->varlen && std::ranges::equal(old, record);
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

// Its storage goes before its number: the node that this leaves may serve the list of numbers.
int remove_at_once(std::int32_t number, ConstBytes old) {
  // The list may need a node, which must not be missing when the storage is gone.
  const std::int64_t next = std::int64_t{dictp->d_nextnode()} + 1;
  if (dictp->d_freenode() == 0 && reserve_nodes(next, next) != 0) return -1;
  if (datadelete(number) != 0) return -1;
  if (freerec(number, FreeList::kRecords) == 0) {
    lkrecord(number, RecordLock::kRelease);
    return 0;
  }
  const KeepError keep;
  const RoomIsThere its_own;
  clear_errors();
  static_cast<void>(datawrite(number, old, true));
  return -1;
}

int log_and_remove(std::int32_t number, ConstBytes old) {
  if (txlog::logs_changes() && txlog::log_deleted(number, old) != 0) return -1;
  return may_be_undone() ? remove_for_now(number) : remove_at_once(number, old);
}

// The entry of the trail stands before the log's image, and stays whatever becomes of the deletion.
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

Bytes record_room() { return temprecord().first(static_cast<std::size_t>(filep->maxreclen)); }

}  // namespace

std::int32_t wrtrecord(ConstBytes record, Current current, std::int32_t given) {
  const Keys* keys = file_keys();
  if (keys == nullptr || txlog::audopen() != 0) return -1;
  const std::int32_t highest = dictp->d_nextdata();
  std::int32_t number = 0;
  if (take_number(given, number) != 0) return -1;
  KeptPosition position;
  if (current == Current::kMoves && openp->key.nparts == 0) {
    Item item;
    item.recptr = number;
    position.move_to_new(item);
  }
  const std::size_t added = add_items(*keys, record, number, current, position);
  if (added == keys->size() && store(number, record, given > 0) == 0) {
    audit(txlog::AuditLetter::kAdded, number, record);
    return number;
  }
  position.stay();
  const KeepError keep;
  remove_items(*keys, added, record, number);
  if (given == 0) give_number_back(number, highest);
  return -1;
}

int rewrecord(std::int32_t number, ConstBytes old, ConstBytes record, Current current) {
  const Keys* keys = file_keys();
  if (keys == nullptr || txlog::audopen() != 0 || lock_for_change(number) != 0) return -1;
  KeptPosition position;
  Replacement replacement{*keys, number, old, record};
  if (replacement.run(current, position) == 0) {
    if (replace_record(number, old, record) == 0) return 0;
    replacement.undo();
  }
  position.stay();
  return -1;
}

int delrecord(std::int32_t number, ConstBytes old) {
  const Keys* keys = file_keys();
  if (keys == nullptr || txlog::audopen() != 0 || lock_for_change(number) != 0) return -1;
  if (may_be_undone() && reserve_entry(openp->deleted) != 0) return -1;
  if (begin_taking(*keys) != 0) return -1;
  const KeptPosition position;
  filep->gives_number = true;
  if (take_items(*keys, old, number) == 0 && remove_record(number, old) == 0) return 0;
  const KeepError keep;
  const RoomIsThere its_own;
  while (!taken.empty()) put_back_last(*keys, old, number);
  return -1;
}

FoundRecord with_key(const FoundRecord& found, const Item& item, const keydescr& k) {
  if (found.number < 0) return found;
  if (itcompare(item_of(found.bytes, found.number, k), item, KeyOrder{k}) == 0) return found;
  failed(kCorrupted);
  return {};
}

FoundRecord getrecord(const Byte* record) {
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
    const KeptPosition position;
    if (btsearch(wanted, k, 0, Search::kRead) != 0) return {};
    if (bt.ends == kOnItem && itcompare(wanted, treeitem, KeyOrder{k}) == 0) {
      number = treeitem.recptr;
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
