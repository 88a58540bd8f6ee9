#include "isam/tree/leafrun.h"

#include <algorithm>

#include "isam/base/errors.h"
#include "isam/tree/treenode.h"

namespace isam {
namespace {

// The record that the item ending at `end` names.
std::int32_t record_before(ConstBytes area, int end) {
  return stored_recptr(area.data() + end - kRecordPointerSize);
}

}  // namespace

bool LeafRun::may_follow(const Cursor& cursor) {
  if (cursor.bt.depth < 0 || cursor.bt.ends != kOnItem) return false;
  const PathLevel& leaf = cursor.bt.leaf();
  const ItemPlace& read = cursor.place;
  return read.node == leaf.node && read.offset == leaf.offset &&
         read.generation == filep->cached.generation;
}

void LeafRun::gather(const Cursor& cursor, const keydescr& k, Direction direction,
                     std::size_t most) {
  count_ = 0;
  if (!may_follow(cursor)) return;
  const KeepError keep;  // what cannot be read is met again by a move
  const TreeNode node{cursor.bt.leaf().node};
  if (node) gather(cursor, k, direction, most, node.area());
}

void LeafRun::gather(const Cursor& cursor, const keydescr& k, Direction direction, std::size_t most,
                     ConstBytes area) {
  count_ = walked_ = 0;
  direction_ = direction;
  const PathLevel& leaf = cursor.bt.leaf();
  if (static_cast<int>(area.size()) != leaf.length) return;
  const ItemLayout layout{k};
  most = std::min(most, kMostItems - 1);
  if (direction == Direction::kNext) {
    gather_next(layout, area, leaf.next, most);
  } else {
    gather_previous(layout, area, leaf.offset, most);
  }
}

// With duplicates one item more is met than gathered.
void LeafRun::gather_next(const ItemLayout& layout, ConstBytes area, int pos, std::size_t most) {
  const std::size_t beyond = layout.dups ? 1 : 0;
  const auto size = static_cast<int>(area.size());
  const auto take = [&](int start, int end) {
    starts_[walked_] = static_cast<std::uint16_t>(start);
    records_[walked_++] = record_before(area, end);
  };
  if (!layout.compressed()) {
    const int step = layout.fixed_size();
    for (; walked_ < most + beyond && size - pos >= step; pos += step) take(pos, pos + step);
  } else {
    ItemWalk walk{layout, area, pos};
    while (walked_ < most + beyond && walk.end() < size && walk.next()) {
      take(walk.start(), pos = walk.end());
    }
  }
  starts_[walked_] = static_cast<std::uint16_t>(pos);
  if (walked_ > beyond) count_ = walked_ - beyond;
}

// The way to the items before `end` leads over all from the leaf's first one on.
void LeafRun::gather_previous(const ItemLayout& layout, ConstBytes area, int end,
                              std::size_t most) {
  ItemWalk walk{layout, area};
  while (walk.end() < end) {
    if (walked_ == kMostItems || !walk.next()) return;
    starts_[walked_++] = static_cast<std::uint16_t>(walk.start());
  }
  starts_[walked_] = static_cast<std::uint16_t>(end);
  const std::size_t beyond = layout.dups ? 1 : 0;
  if (walk.end() != end || walked_ <= beyond) return;
  count_ = std::min(most, walked_ - beyond);
  for (std::size_t i = 0; i < count_; ++i) {
    records_[i] = record_before(area, starts_[walked_ - i]);
  }
}

int LeafRun::stand_on(Cursor& cursor, const keydescr& k, std::size_t index) const {
  const TreeNode node{cursor.bt.leaf().node};
  if (!node) {
    btchanged(cursor);
    return -1;
  }
  return stand_on(cursor, k, index, node.area());
}

int LeafRun::stand_on(Cursor& cursor, const keydescr& k, std::size_t index, ConstBytes area) const {
  PathLevel& leaf = cursor.bt.leaf();
  const bool forward = direction_ == Direction::kNext;
  const std::size_t at = met(index);
  const Item here = cursor.treeitem;
  const std::span<const std::uint16_t> way{starts_.data(), at + 1};
  const int end =
      itassemble(ItemLayout{k}, area, way, forward ? here.key : kNoKey, cursor.treeitem);
  if (end != starts_[at + 1]) {
    btchanged(cursor);
    return failed(kCorrupted);
  }
  leaf.offset = starts_[at];
  leaf.next = end;
  cursor.place.offset = leaf.offset;
  return 0;
}

bool LeafRun::has_same_key(const keydescr& k, std::size_t index, ConstBytes area) const {
  const ItemLayout layout{k};
  if (!layout.dups) return false;
  const bool forward = direction_ == Direction::kNext;
  const std::size_t at = met(index);
  if (layout.dcompress) {
    const int between = starts_[forward ? at + 1 : at];
    return repeats_at(area, between);
  }
  const std::size_t neighbour = forward ? at + 1 : at - 1;
  return KeyOrder{k}.compare(area.data() + starts_[at], area.data() + starts_[neighbour]) == 0;
}

}  // namespace isam
