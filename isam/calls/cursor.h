// cursor: the place of an open in its current index.
//
// Each open has a position of its own: its current item (key, duplicate number, record number), and
// whether it stands on this item, before the first one or behind the last one. Whatever other opens
// and processes change, the item is found again, or the place where it was. The position is
//
//   none    after isbuild and an isstart that finds nothing: a step leads nowhere (112)
//   found   after isopen (before the first item) and isstart: a step forward reads the item found
//   read    after isread and iswrcurr: a step goes to the neighbour
//
// Other calls that change records leave it where it was, though its record may be gone then (112);
// isrewcurr takes it along when the item gets a new key. A read that fails leaves it too, but for
// one that makes a locked record the current one (ReadOutcome::kLockedCurrent).
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
// isrecnum in the order of record numbers. In a tree kLast stands behind the last item, which is
// the current one. 0, or -1 with 102, 110, 111 or a deeper error, and no position. kFirst and kLast
// succeed in an empty file too: the current item has record number 0 then.
int kposition(Cursor& cursor, const Byte* record, int len, ReadMode mode);

// The first present record from `number` on, in one direction: its number, 0 when there is none, or
// -1 with iserrno.
[[nodiscard]] std::int32_t next_present(std::int32_t number, bool backwards);

// Stands before the first item without looking for it.
void stand_before_first(Cursor& cursor);

// Finds the current item again, for a move: when it is gone from its tree, the path leads to the
// item that follows its place, and the move goes on from there. `again` asks for that very item: it
// is a failure then that the item is gone, or that its record was deleted. 0, or -1 with 112 when
// there is no such item, or with a deeper error.
int find_current(Cursor& cursor, bool again);

// The record number of the current record, or -1 with 112 when it is not there any more.
[[nodiscard]] std::int32_t current_record(Cursor& cursor);

}  // namespace isam
