// keptposition: what a change leaves of the position of its open.
#pragma once

#include <cstdint>

#include "isam/base/current.h"
#include "isam/tree/btree.h"

namespace isam {

// Whether a changed record takes the current item along.
enum class Current { kStays, kMoves };

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

}  // namespace isam
