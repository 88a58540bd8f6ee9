// leafrun: the items of one leaf that follow the current one, for a call that reads many records.
//
// Needs   what isam/tree/btree needs; nothing changes the file between gather() and stand_on()
// Gives   the record numbers that moves in one direction would come to, for the price of one walk
//         over the leaf, and the position after any of these moves
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "isam/tree/btree.h"

namespace isam {

class LeafRun {
 public:
  // Gathers at most `most` items in this direction from the one that the cursor stands on and has
  // read. Of an index with duplicates only those whose own neighbour there is in the leaf too. None
  // where only a move can tell: at the leaf's end, beside the items, where bytes make no item.
  void gather(const Cursor& cursor, const keydescr& k, Direction direction, std::size_t most);
  // The same from a copy of the leaf's items, where any may_follow().
  void gather(const Cursor& cursor, const keydescr& k, Direction direction, std::size_t most,
              ConstBytes area);
  [[nodiscard]] static bool may_follow(const Cursor& cursor);

  // Their record numbers, in the order of the moves.
  [[nodiscard]] std::span<const std::int32_t> records() const { return {records_.data(), count_}; }

  // Stands on the item of records()[index] and reads it, as index + 1 moves would: 0, or -1 with
  // iserrno and depth -1. The second is given a copy of the leaf's items.
  int stand_on(Cursor& cursor, const keydescr& k, std::size_t index) const;
  int stand_on(Cursor& cursor, const keydescr& k, std::size_t index, ConstBytes area) const;

  // Whether it can be told of the run's items that a neighbour has the same key; and whether the
  // neighbour of records()[index] in the direction of the moves has.
  [[nodiscard]] static bool tells_same_keys(const ItemLayout& layout) {
    return !layout.dups || layout.dcompress || !layout.compressed();
  }
  [[nodiscard]] bool has_same_key(const keydescr& k, std::size_t index, ConstBytes area) const;

 private:
  // Which of the items met is that of records()[index].
  [[nodiscard]] std::size_t met(std::size_t index) const {
    return direction_ == Direction::kNext ? index : walked_ - 1 - index;
  }
  void gather_next(const ItemLayout& layout, ConstBytes area, int pos, std::size_t most);
  void gather_previous(const ItemLayout& layout, ConstBytes area, int end, std::size_t most);

  std::size_t count_ = 0;
  Direction direction_ = Direction::kNext;
  std::size_t walked_ = 0;  // items met, in the order of the leaf; more than count_ perhaps
  std::array<std::uint16_t, kMostItems + 1> starts_;  // ... where they start, and the end
  std::array<std::int32_t, kMostItems> records_;
};

}  // namespace isam
