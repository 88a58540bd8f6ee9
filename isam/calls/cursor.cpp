#include "isam/calls/cursor.h"

#include <algorithm>

#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/records/datafile.h"
#include "isam/tree/btree.h"

namespace isam {
namespace {

bool by_number() { return openp->key.nparts == 0; }

int position_in_tree(Cursor& cursor, const Byte* record, int len, ReadMode mode) {
  const keydescr& k = openp->key;
  if (mode == ReadMode::kFirst) return btposition(cursor, k, Edge::kFirst);
  if (mode == ReadMode::kLast) return btposition(cursor, k, Edge::kLast);
  Item wanted;
  itmake(record, wanted, k);
  const Search search = mode == ReadMode::kGreater ? Search::kPast : Search::kRead;
  if (btsearch(cursor, wanted, k, len, search) != 0) return -1;
  if (cursor.bt.ends != kOnItem) return failed(kNoRecord);
  dataexpect(cursor.treeitem.recptr);
  if (mode == ReadMode::kEqual && itcompare(wanted, cursor.treeitem, KeyOrder{k}, len) != 0) {
    return failed(kNoRecord);
  }
  return 0;
}

bool past_last(std::int32_t number) { return number > dictp->d_nextdata(); }

int position_by_number(Cursor& cursor, ReadMode mode) {
  std::int32_t number = 1;
  if (mode == ReadMode::kLast) {
    number = dictp->d_nextdata();
  } else if (mode != ReadMode::kFirst) {
    number = isrecnum;
    if (mode == ReadMode::kGreater && number < INT32_MAX) ++number;
    if (past_last(number) || (mode == ReadMode::kEqual && number < 1)) return failed(kNoRecord);
    number = std::max(number, 1);
  }
  if (mode == ReadMode::kEqual) {
    const int present = datacheck(number);
    if (present <= 0) return failed_unless_set(kNoRecord);
  } else {
    number = next_present(number, mode == ReadMode::kLast);
    if (number < 0) return -1;
    const bool edge = mode == ReadMode::kFirst || mode == ReadMode::kLast;
    if (number == 0 && !edge) return failed(kEndOfFile);
  }
  btnumber(cursor, number);
  if (number == 0) cursor.bt.ends = kBeforeFirst;
  return 0;
}

}  // namespace

std::int32_t next_present(std::int32_t number, bool backwards) {
  constexpr int kPatience = 64;  // absent records in a row before the file's size is asked for
  std::int32_t last = dictp->d_nextdata();
  // A position may stand anywhere behind the last number.
  if (backwards) number = std::min(number, last);
  for (int absent = 0; number >= 1 && number <= last; number += backwards ? -1 : 1) {
    const int present = datacheck(number);
    if (present != 0) return present < 0 ? -1 : number;
    if (++absent != kPatience) continue;
    last = records_in_file();
    if (backwards && number > last) number = last + 1;
  }
  return 0;
}

void take_found_item(Cursor& cursor) { cursor.bt.item = cursor.treeitem; }

void stand_before_first(Cursor& cursor) {
  cursor.bt.state = kHasCurrent;
  cursor.bt.ends = kBeforeFirst;
  cursor.bt.depth = -1;
  cursor.bt.item = Item{};
}

int kposition(Cursor& cursor, const Byte* record, int len, ReadMode mode) {
  cursor.bt.depth = -1;
  cursor.bt.ends = kOnItem;
  cursor.bt.state = 0;
  if (!positions_anew(mode)) return failed(kBadArgument);
  const int found =
      by_number() ? position_by_number(cursor, mode) : position_in_tree(cursor, record, len, mode);
  if (found != 0) return -1;
  // An empty tree gives no item, and treeitem may still be that of an earlier read.
  if (cursor.bt.ends == kEmptyTree) btnumber(cursor, 0);
  take_found_item(cursor);
  cursor.bt.state |= kHasCurrent;
  return 0;
}

int find_current(Cursor& cursor, bool again) {
  if ((cursor.bt.state & kHasCurrent) == 0) return failed(kNoCurrent);
  if (btcurrent(cursor, openp->key, again) != 0) return failed_unless_set(kNoCurrent);
  // In the order of record numbers btcurrent() reads no item.
  if (by_number()) btnumber(cursor, cursor.bt.item.recptr);
  return 0;
}

std::int32_t current_record(Cursor& cursor) {
  if (find_current(cursor, true) != 0) return -1;
  if (cursor.bt.ends != kOnItem) return failed(kNoCurrent);
  return cursor.bt.item.recptr;
}

}  // namespace isam
