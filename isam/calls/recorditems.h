// recorditems: the items of one record in the indexes of its file are put in, taken out, replaced,
// and put back where they stood.
//
// Needs   the current open entered for writing
// Keeps   what cannot be undone is told as a lost write is
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "isam/calls/keptposition.h"
#include "isam/tree/items.h"
#include "isam/tree/pathahead.h"

namespace isam {

using Keys = std::vector<keydescr>;

inline Item item_of(ConstBytes record, std::int32_t number, const keydescr& k) {
  Item item;
  itmake(record.data(), item, k);
  item.recptr = number;
  return item;
}

// The ways of a record's items to their leaves, found ahead in the first indexes.
class WaysAhead {
 public:
  void find(const Keys& keys, ConstBytes record, Search mode);
  // Null for an index whose way was not looked for.
  [[nodiscard]] const PathAhead* of(std::size_t index) const {
    return index < kMost && sought_[index] ? &ways_[index] : nullptr;
  }

 private:
  static constexpr std::size_t kMost = 8;
  std::bitset<kMost> sought_;
  std::array<PathAhead, kMost> ways_;
};

// Adds a record's items to the indexes in turn, up to the first that fails: how many were added.
std::size_t add_items(Cursor& cursor, const Keys& keys, ConstBytes record, std::int32_t number,
                      const WaysAhead& ways, Current current, KeptPosition& position);
// Removes the items that a call has added to the first `count` indexes.
void remove_items(Cursor& cursor, const Keys& keys, std::size_t count, ConstBytes record,
                  std::int32_t number);

// The items of one record that a change takes out of the indexes, to be put back where they stood
// when it fails. A call has one such change at a time.
class TakenItems {
 public:
  TakenItems(Cursor& cursor, const Keys& keys, std::int32_t number, ConstBytes record)
      : cursor_(cursor), keys_(keys), number_(number), record_(record), list_(openp->taken) {}

  // Before anything is changed: 0, or -1 with 116.
  int begin();
  // Takes `item` out of one index: 0, or -1 with iserrno. Leaves its duplicate number in `item`.
  int take_out(std::size_t index, Item& item, const PathAhead* ahead = nullptr);
  // Begins, and takes out those of all indexes: 0, or -1 at the first that cannot be.
  int take_all();

  [[nodiscard]] bool is_empty() const { return list_.empty(); }
  // Puts the item taken out last back: of which index it was.
  std::size_t put_last_back();
  void put_all_back();

 private:
  Cursor& cursor_;
  const Keys& keys_;
  std::int32_t number_;
  ConstBytes record_;
  std::vector<TakenItem>& list_;
};

// The replacement of one record's items by another's, index by index.
class Replacement {
 public:
  Replacement(Cursor& cursor, const Keys& keys, std::int32_t number, ConstBytes old,
              ConstBytes record)
      : cursor_(cursor),
        keys_(keys),
        number_(number),
        old_(old),
        record_(record),
        taken_(cursor, keys, number, old) {}

  // 0, or -1 with iserrno and everything as it was.
  int run(Current current, KeptPosition& position);
  // After run(), when a later step of the change fails.
  void undo();

 private:
  // Replaces what differs in the indexes with duplicates, or in those without: 0 or -1.
  int change(bool dups, Current current, KeptPosition& position);
  // Puts `fresh` into one index and takes `old` out: 0, or -1 with the index as it was.
  int replace(std::size_t index, Item& old, Item& fresh);

  Cursor& cursor_;
  const Keys& keys_;
  std::int32_t number_;
  ConstBytes old_;
  ConstBytes record_;
  TakenItems taken_;
};

}  // namespace isam
