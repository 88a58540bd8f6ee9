// recorditems: the items of one record in the indexes of its file are put in, taken out, replaced,
// and put back where they stood.
//
// Needs   the current open entered for writing
// Keeps   what cannot be undone is told as a lost write is
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "isam/calls/keptposition.h"
#include "isam/tree/items.h"

namespace isam {

using Keys = std::vector<keydescr>;

inline Item item_of(ConstBytes record, std::int32_t number, const keydescr& k) {
  Item item;
  itmake(record.data(), item, k);
  item.recptr = number;
  return item;
}

// Adds a record's items to the first indexes, up to one that refuses it: how many were added.
std::size_t add_items(Cursor& cursor, const Keys& keys, ConstBytes record, std::int32_t number,
                      Current current, KeptPosition& position);
// Removes the items that a call has added to the first `count` indexes.
void remove_items(Cursor& cursor, const Keys& keys, std::size_t count, ConstBytes record,
                  std::int32_t number);

// Takes all items of a record out: 0, or -1 at the first that cannot be, or with 116.
int take_items(Cursor& cursor, const Keys& keys, ConstBytes record, std::int32_t number);
// Puts those that were taken out back where they stood.
void put_items_back(Cursor& cursor, const Keys& keys, ConstBytes record, std::int32_t number);

// The replacement of one record's items by another's, index by index.
class Replacement {
 public:
  Replacement(Cursor& cursor, const Keys& keys, std::int32_t number, ConstBytes old,
              ConstBytes record)
      : cursor_(cursor), keys_(keys), number_(number), old_(old), record_(record) {}

  // 0, or -1 with everything as it was.
  int run(Current current, KeptPosition& position);
  // Of a replacement that has been run.
  void undo();

 private:
  int change(bool dups, Current current, KeptPosition& position);
  int replace(std::size_t index, Item& old, Item& fresh);

  Cursor& cursor_;
  const Keys& keys_;
  std::int32_t number_;
  ConstBytes old_;
  ConstBytes record_;
};

}  // namespace isam
