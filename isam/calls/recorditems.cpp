#include "isam/calls/recorditems.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>

#include "isam/base/errors.h"
#include "isam/keys/keys.h"
#include "isam/pool/buffers.h"
#include "isam/pool/extent.h"
#include "isam/tree/btree.h"

namespace isam {
namespace {

bool is_current_key(const keydescr& k) { return kycompare(k, openp->key) == 0; }

// Whether a record keeps a key byte for byte when another takes its place.
bool keeps_key(ConstBytes old, ConstBytes record, const keydescr& k) {
  const auto keeps_part = [&](const keypart& part) {
    return std::memcmp(old.data() + part.start, record.data() + part.start,
                       static_cast<std::size_t>(part.length)) == 0;
  };
  return std::all_of(k.part, k.part + k.nparts, keeps_part);
}

// `result` is that of a step that undoes another: its failure is told as a lost write is.
void note_undone(int result) {
  if (result != 0) bfnote_failure(*filep);
}

void remove_added(Cursor& cursor, const keydescr& k, ConstBytes record, std::int32_t number) {
  Item item = item_of(record, number, k);
  note_undone(btdelitem(cursor, item, k));
}

}  // namespace

void WaysAhead::find(const Keys& keys, ConstBytes record, Search mode) {
  std::optional<WayFinder> waiting;  // for another one, to be made with it
  for (std::size_t i = 0; i < std::min(keys.size(), kMost); ++i) {
    const keydescr& k = keys[i];
    if (!PathAhead::is_needed(k, mode)) continue;
    sought_.set(i);
    if (!waiting) {
      waiting.emplace(ways_[i], item_of(record, 0, k), k, mode);
      continue;
    }
    WayFinder other{ways_[i], item_of(record, 0, k), k, mode};
    WayFinder::find(&*waiting, &other);
    waiting.reset();
  }
  if (waiting) WayFinder::find(&*waiting, nullptr);
}

void remove_items(Cursor& cursor, const Keys& keys, std::size_t count, ConstBytes record,
                  std::int32_t number) {
  while (count > 0) remove_added(cursor, keys[--count], record, number);
}

int TakenItems::begin() {
  list_.clear();
  try {
    list_.reserve(keys_.size());
  } catch (const std::bad_alloc&) {
    return failed(kNoMemory);
  }
  return 0;
}

int TakenItems::take_out(std::size_t index, Item& item, const PathAhead* ahead) {
  if (btdelitem(cursor_, item, keys_[index], ahead) != 0) return -1;
  list_.push_back({index, item.dupnm});
  return 0;
}

int TakenItems::take_all() {
  if (begin() != 0) return -1;
  WaysAhead ways;
  ways.find(keys_, record_, Search::kRead);
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    if (keys_[i].nparts == 0) continue;
    Item item = item_of(record_, number_, keys_[i]);
    if (take_out(i, item, ways.of(i)) != 0) return -1;
  }
  return 0;
}

std::size_t TakenItems::put_last_back() {
  const TakenItem last = list_.back();
  list_.pop_back();
  const keydescr& k = keys_[last.index];
  Item item = item_of(record_, number_, k);
  item.dupnm = last.dupnm;
  note_undone(btreturnitem(cursor_, item, k));
  return last.index;
}

void TakenItems::put_all_back() {
  const KeepError keep;
  const RoomIsThere no_reserving;
  while (!is_empty()) put_last_back();
}

std::size_t add_items(Cursor& cursor, const Keys& keys, ConstBytes record, std::int32_t number,
                      const WaysAhead& ways, Current current, KeptPosition& position) {
  std::size_t added = 0;
  for (; added < keys.size(); ++added) {
    Item item = item_of(record, number, keys[added]);
    // A key without parts has no tree: nothing is added for it, here and in remove_items().
    if (btadditem(cursor, item, keys[added], ways.of(added)) != 0) break;
    position.note_neighbour();
    if (current == Current::kMoves && is_current_key(keys[added])) position.move_to_new(item);
  }
  return added;
}

// Unique indexes come first: they are the ones that may refuse.
int Replacement::run(Current current, KeptPosition& position) {
  if (taken_.begin() != 0) return -1;
  if (change(false, current, position) == 0 && change(true, current, position) == 0) return 0;
  undo();
  return -1;
}

void Replacement::undo() {
  const KeepError keep;
  const RoomIsThere no_reserving;
  while (!taken_.is_empty()) {
    const std::size_t index = taken_.put_last_back();
    remove_added(cursor_, keys_[index], record_, number_);
  }
}

int Replacement::change(bool dups, Current current, KeptPosition& position) {
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    const keydescr& k = keys_[i];
    if (((k.flags & KF_DUPS) != 0) != dups || keeps_key(old_, record_, k)) continue;
    Item old = item_of(old_, number_, k);
    Item fresh = item_of(record_, number_, k);
    if (itcompare(old, fresh, KeyOrder{k}) == 0) continue;
    if (replace(i, old, fresh) != 0) {
      failure_detail = {.error = kDuplicate, .index = static_cast<int>(i) + 1};
      return -1;
    }
    position.note_neighbour();
    if (current == Current::kMoves && is_current_key(k)) position.move_to(fresh);
  }
  return 0;
}

int Replacement::replace(std::size_t index, Item& old, Item& fresh) {
  const keydescr& k = keys_[index];
  PathAhead to_fresh;
  PathAhead to_old;
  WayFinder fresh_finder{to_fresh, fresh, k, Search::kInsert};
  WayFinder old_finder{to_old, old, k, Search::kRead};
  WayFinder::find(PathAhead::is_needed(k, Search::kInsert) ? &fresh_finder : nullptr,
                  PathAhead::is_needed(k, Search::kRead) ? &old_finder : nullptr);
  if (btadditem(cursor_, fresh, k, &to_fresh) != 0) return -1;
  if (taken_.take_out(index, old, &to_old) == 0) return 0;
  const KeepError keep;
  note_undone(btdelitem(cursor_, fresh, k));
  return -1;
}

}  // namespace isam
