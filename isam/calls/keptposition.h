// keptposition: what a change leaves in the cursor, when it is over, of the position that its open
// had. (From one call to the next Open::position keeps it: isam/calls/call.)
#pragma once

#include <cstdint>
#include <optional>

#include "isam/base/current.h"
#include "isam/tree/btree.h"

namespace isam {

// Whether a changed record takes the current item along.
enum class Current { kStays, kMoves };

// Puts the position back when a change, which used the cursor for itself, is over: where it was
// before the call, or where move_to() said. The path is no longer valid.
class KeptPosition {
 public:
  explicit KeptPosition(Cursor& cursor) : bt_(cursor.bt) {}
  KeptPosition(const KeptPosition&) = delete;
  KeptPosition& operator=(const KeptPosition&) = delete;
  ~KeptPosition() {
    bt_ = openp->position;
    bt_.state |= nearby_;
    bt_.depth = -1;
    if (item_) move();
  }

  // An insertion met an equal key.
  void note_neighbour() { nearby_ |= bt_.state & kSameKeyNearby; }
  // A new record becomes current as if it had been read.
  void move_to_new(const Item& item) {
    move_to(item);
    moved_state_ = kHasCurrent | kCurrentRead;
  }
  // The current record has a new key: read or not, it is current as before.
  void move_to(const Item& item) { item_ = item; }
  // Takes that back: the change has failed.
  void stay() { item_.reset(); }

 private:
  // Most changes leave the current item: a function of its own keeps those short.
  [[gnu::noinline]] void move() {
    bt_.item = *item_;
    bt_.ends = kOnItem;
    bt_.state = static_cast<std::uint16_t>((bt_.state & ~kCurrentDeleted) | moved_state_);
  }

  Position& bt_;
  std::uint16_t nearby_ = 0;
  std::uint16_t moved_state_ = kHasCurrent;
  std::optional<Item> item_;  // the new current one
};

}  // namespace isam
