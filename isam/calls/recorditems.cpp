#include "isam/calls/recorditems.h"

#include <new>

#include "isam/base/errors.h"
#include "isam/keys/keys.h"
#include "isam/pool/buffers.h"
#include "isam/pool/extent.h"
#include "isam/tree/btree.h"

namespace isam {
namespace {

bool is_current_key(const keydescr& k) { return kycompare(k, openp->key) == 0; }

// What a step that undoes another could not do is told as a lost write is.
void note_undone(int result) {
  if (result != 0) bfnote_failure(*filep);
}

void remove_added(Cursor& cursor, const keydescr& k, ConstBytes record, std::int32_t number) {
  Item item = item_of(record, number, k);
  note_undone(btdelitem(cursor, item, k));
}

}  // namespace

void remove_items(Cursor& cursor, const Keys& keys, std::size_t count, ConstBytes record,
                  std::int32_t number) {
  while (count > 0) remove_added(cursor, keys[--count], record, number);
}

namespace {

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

int take_out(Cursor& cursor, const Keys& keys, std::size_t index, Item& item) {
  if (btdelitem(cursor, item, keys[index]) != 0) return -1;
  taken.push_back({index, item.dupnm});
  return 0;
}

// Puts the item taken out last back where it stood.
void put_back_last(Cursor& cursor, const Keys& keys, ConstBytes record, std::int32_t number) {
  const keydescr& k = keys[taken.back().index];
  Item item = item_of(record, number, k);
  item.dupnm = taken.back().dupnm;
  taken.pop_back();
  note_undone(btreturnitem(cursor, item, k));
}

}  // namespace

int take_items(Cursor& cursor, const Keys& keys, ConstBytes record, std::int32_t number) {
  if (begin_taking(keys) != 0) return -1;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (keys[i].nparts == 0) continue;
    Item item = item_of(record, number, keys[i]);
    if (take_out(cursor, keys, i, item) != 0) return -1;
  }
  return 0;
}

void put_items_back(Cursor& cursor, const Keys& keys, ConstBytes record, std::int32_t number) {
  while (!taken.empty()) put_back_last(cursor, keys, record, number);
}

std::size_t add_items(Cursor& cursor, const Keys& keys, ConstBytes record, std::int32_t number,
                      Current current, KeptPosition& position) {
  std::size_t added = 0;
  for (; added < keys.size(); ++added) {
    Item item = item_of(record, number, keys[added]);
    if (btadditem(cursor, item, keys[added]) != 0) break;
    position.note_neighbour();
    if (current == Current::kMoves && is_current_key(keys[added])) position.move_to_new(item);
  }
  return added;
}

// Unique indexes come first: they are the ones that may refuse.
int Replacement::run(Current current, KeptPosition& position) {
  if (begin_taking(keys_) != 0) return -1;
  if (change(false, current, position) == 0 && change(true, current, position) == 0) return 0;
  undo();
  return -1;
}

void Replacement::undo() {
  const KeepError keep;
  const RoomIsThere its_own;
  while (!taken.empty()) {
    const keydescr& k = keys_[taken.back().index];
    put_back_last(cursor_, keys_, old_, number_);
    remove_added(cursor_, k, record_, number_);
  }
}

int Replacement::change(bool dups, Current current, KeptPosition& position) {
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

int Replacement::replace(std::size_t index, Item& old, Item& fresh) {
  const keydescr& k = keys_[index];
  if (btadditem(cursor_, fresh, k) != 0) return -1;
  const std::uint16_t nearby = cursor_.bt.state & kSameKeyNearby;
  if (take_out(cursor_, keys_, index, old) == 0) {
    cursor_.bt.state |= nearby;
    return 0;
  }
  const KeepError keep;
  note_undone(btdelitem(cursor_, fresh, k));
  return -1;
}

}  // namespace isam
