// change: adding, replacing and deleting one record together with its index entries.
//
// Needs   the current open entered for writing
// Keeps   R1 a change that fails is undone: indexes, numbers and the record are as they were. Of an
//            undoing that fails the pair's mark is left, as of a lost write
// Gives   the steps behind the public calls
// Never   moves the open's position, unless it is told to
#pragma once

#include <cstdint>

#include "isam.h"
#include "isam/base/format.h"
#include "isam/base/position.h"
#include "isam/calls/keptposition.h"

namespace isam {

// Adds a record: its number, or -1 with iserrno (100 for an equal key, 107 when no free number
// tried can be locked). kMoves makes it the current one. `given` is the number of an absent record
// that it is to have, 0 for any; it stays the caller's after a failure.
std::int32_t wrtrecord(Cursor& cursor, ConstBytes record, Current current, std::int32_t given = 0);

// Replaces record `number`, which holds `old`: 0, or -1 with iserrno (100 for an equal key,
// 107 when others have it locked). With kMoves a changed key takes the current item along.
int rewrecord(Cursor& cursor, std::int32_t number, ConstBytes old, ConstBytes record,
              Current current);

// Deletes record `number`, which holds `old`: 0, or -1 with iserrno (107 as above).
int delrecord(Cursor& cursor, std::int32_t number, ConstBytes old);

// A record found to be changed, its bytes in the shared record buffer.
struct FoundRecord {
  std::int32_t number = -1;  // -1: none, with iserrno
  ConstBytes bytes;
};
// The first record with the primary key of `record`: none with 111, or 127 without a primary key.
[[nodiscard]] FoundRecord getrecord(Cursor& cursor, const Byte* record);
// A record found through an item of an index, if it has that item's key: none with 105, for it is
// not the record meant.
[[nodiscard]] FoundRecord with_key(const FoundRecord& found, const Item& item, const keydescr& k);
// Record `number`, whether it is the current one or not: none with 111 when it is not present.
[[nodiscard]] FoundRecord getcurrent(std::int32_t number);

}  // namespace isam
