// cursor: the place of an open in its current index.
//
// A position is the open's own current item (key, duplicate number, record number) and a place on
// it, before the first item or behind the last. Whatever other opens and processes change, the item
// is found again, or the place where it was.
//
//                    isstart                  isread
//   none --------------------------> found --------------> read --+
//     ^  isbuild                       |  ^                 |  ^  |  rewrite, delete: stays; the
//     |                                |  |  next, previous |  |  |  record may be gone (112)
//     +--------------------------------+  +-----------------+  +--+
//            failed isstart
//
// Needs   the current open entered
// Gives   positioning, and moving to records that are present
#pragma once

#include "isam/base/format.h"
#include "isam/base/position.h"

namespace isam {

// The low byte of a read mode.
enum class ReadMode : int {
  kFirst = 0,
  kLast = 1,
  kNext = 2,
  kPrevious = 3,
  kCurrent = 4,
  kEqual = 5,
  kGreater = 6,
  kGreaterOrEqual = 7,
};

// Modes that position anew, whatever the position is.
[[nodiscard]] constexpr bool positions_anew(ReadMode mode) {
  return mode < ReadMode::kNext || (mode > ReadMode::kCurrent && mode <= ReadMode::kGreaterOrEqual);
}

// Makes the item found on the path current.
void take_found_item(Cursor& cursor);

// Positions the current index by the first `len` bytes of the key in `record` (0: all of it), or by
// isrecnum in the order of record numbers, and sets isrecnum to the record found. 0, or -1 with
// 102, 110, 111; then there is no position.
int kposition(Cursor& cursor, const Byte* record, int len, ReadMode mode);

// The first present record from `number` on, in one direction: its number, 0 when there is none, or
// -1 with iserrno.
[[nodiscard]] std::int32_t next_present(std::int32_t number, bool backwards);

// Stands before the first item without looking for it.
void stand_before_first(Cursor& cursor);

// Finds the place of the current item again for a move, or (`again`) that very record: 0, or -1
// with 112 when there is none.
int find_current(Cursor& cursor, bool again);

// The record number of the current record, or -1 with 112 when it is not there any more.
[[nodiscard]] std::int32_t current_record(Cursor& cursor);

}  // namespace isam
