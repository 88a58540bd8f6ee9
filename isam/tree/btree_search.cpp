#include "isam/base/errors.h"
#include "isam/files/dictionary.h"
#include "isam/files/files.h"
#include "isam/tree/btree.h"
#include "isam/tree/descent.h"
#include "isam/tree/treenode.h"

namespace isam {

Position bt;
Item treeitem;

namespace {

// Which stored item treeitem is, no node when it may be anything: a step forward from it needs no
// reading of what lies before it. It outlives the call, so the file's generation goes with it, and
// every change of a tree ends it.
struct TreeItemPlace {
  std::uint64_t generation = 0;
  std::int32_t node = 0;
  int offset = 0;
};
TreeItemPlace treeitem_place;

// The leaf that the last search came to, its place there, and the item that it compared last
// before.
struct LastSearch {
  std::uint64_t generation = 0;
  std::int32_t node = 0;
  int offset = 0;
  int passed = 0;
};
LastSearch last_search;

int lost() {
  bt.depth = -1;
  return -1;
}

int lost(Code code) {
  failed(code);
  return lost();
}

void clear_state(int flags) { bt.state = static_cast<std::uint16_t>(bt.state & ~flags); }

// The path has come to the leaf's item at `offset`, which treeitem now is.
void arrived(PathLevel& leaf, int offset, int next) {
  leaf.offset = offset;
  leaf.next = next;
  treeitem_place = {filep->cached.generation, leaf.node, offset};
}

std::int32_t child_before(ConstBytes area, int end) {
  return stored_recptr(area.data() + end - kRecordPointerSize);
}

Ends end_towards(Direction direction) {
  return direction == Direction::kNext ? kAfterLast : kBeforeFirst;
}

bool has_neighbour(const PathLevel& level, Direction direction) {
  return direction == Direction::kNext ? level.next < level.length : level.offset > 0;
}

// Reads a node into the path. Below the root an empty one is damage.
TreeNode node_at(int depth, std::int32_t number) {
  TreeNode node{number};
  if (!node) {
    lost();
    return node;
  }
  const bool too_deep = depth >= kMaxTreeLevels - 1 && !node.is_leaf();
  const bool astray = node.length() == 0 && (depth > 0 || !node.is_leaf());
  if (too_deep || astray) {
    lost(kCorrupted);
    return TreeNode{};
  }
  bt.level(depth) = {number, 0, 0, node.length()};
  return node;
}

// Stands before the first item of a node, or behind the last one, as `direction` will go.
void stand_outside(PathLevel& level, Direction direction) {
  level.offset = level.next = direction == Direction::kNext ? 0 : level.length;
}

// Steps to the neighbour item within an upper node: its child, or -1.
std::int32_t step_above(const ItemLayout& layout, ConstBytes area, PathLevel& level,
                        Direction direction) {
  if (direction == Direction::kNext) {
    StoredItem stored;
    if (!itlocate(layout, area, level.next, stored)) return lost(kCorrupted);
    level.offset = level.next;
    level.next = stored.end;
  } else {
    const int start = itbefore(layout, area, level.offset);
    if (start < 0) return lost(kCorrupted);
    level.next = level.offset;
    level.offset = start;
  }
  return child_before(area, level.next);
}

bool treeitem_is_at(const PathLevel& leaf) {
  return treeitem_place.node == leaf.node && treeitem_place.offset == leaf.offset &&
         treeitem_place.generation == filep->cached.generation;
}

// Steps to the neighbour item within a leaf and unpacks it into treeitem.
int step_in_leaf(const ItemLayout& layout, ConstBytes area, PathLevel& leaf, Direction direction) {
  const bool known = treeitem_is_at(leaf);
  treeitem_place = {};
  if (direction == Direction::kPrevious) {
    const int start = itprevious(layout, area, leaf.offset, treeitem);
    if (start < 0) return lost(kCorrupted);
    arrived(leaf, start, leaf.offset);
    return 0;
  }
  const int pos = leaf.next;
  if (pos > 0 && !known && itprevious(layout, area, pos, treeitem) < 0) return lost(kCorrupted);
  const int next = itunpack(layout, area, pos, pos > 0 ? treeitem.key : kNoKey, treeitem);
  if (next < 0) return lost(kCorrupted);
  arrived(leaf, pos, next);
  return 0;
}

// Goes down from node `number` at level `depth` of the path to the outermost item of a leaf, which
// lies at `leaf_depth` unless that is below 0.
int descend(const ItemLayout& layout, std::int32_t number, int depth, int leaf_depth,
            Direction direction) {
  for (;; ++depth) {
    const TreeNode node = node_at(depth, number);
    if (!node) return -1;
    if (leaf_depth >= 0 && node.is_leaf() != (depth == leaf_depth)) return lost(kCorrupted);
    PathLevel& level = bt.level(depth);
    stand_outside(level, direction);
    if (node.is_leaf()) {
      bt.depth = depth;
      if (level.length > 0) return step_in_leaf(layout, node.area(), level, direction);
      bt.ends = kEmptyTree;
      return 0;
    }
    number = step_above(layout, node.area(), level, direction);
    if (number < 0) return -1;
  }
}

// There is no item in this direction: the path stands beside the outermost one.
int stop_at_end(Direction direction) {
  PathLevel& leaf = bt.level(bt.depth);
  bt.ends = end_towards(direction);
  if (direction == Direction::kNext) {
    leaf.offset = leaf.length;
  } else {
    leaf.next = 0;
  }
  return 0;
}

// Another process may have added records, unless this one holds the newer dictionary.
int refresh_dictionary() { return filep->unwritten.dictionary ? 0 : dictread(); }

// Moves the number of a key without parts. Past an end it stands one beyond.
int move_number(Direction direction) {
  std::int32_t& number = bt.item.recptr;
  bt.ends = kOnItem;
  if (direction == Direction::kPrevious) {
    number = number > 1 ? number - 1 : 0;
    if (number == 0) bt.ends = kBeforeFirst;
  } else {
    if (number < INT32_MAX) ++number;
    if (number > dictp->d_nextdata() && refresh_dictionary() != 0) return -1;
    if (number > dictp->d_nextdata()) bt.ends = kAfterLast;
  }
  btnumber(number);
  return 0;
}

// Reads the item on the path into treeitem.
int read_item(const ItemLayout& layout) {
  const PathLevel& leaf = bt.level(bt.depth);
  if (treeitem_is_at(leaf)) return 0;
  treeitem_place = {};
  const TreeNode node{leaf.node};
  if (!node) return lost();
  if (node.length() != leaf.length ||
      itprevious(layout, node.area(), leaf.next, treeitem) != leaf.offset) {
    return lost(kCorrupted);
  }
  treeitem_place = {filep->cached.generation, leaf.node, leaf.offset};
  return 0;
}

// Whether the item on the path is one of two neighbours in a leaf of which the later stores no key.
int read_repeat_bit(Direction direction, bool& repeats) {
  const PathLevel& leaf = bt.level(bt.depth);
  const TreeNode node{leaf.node};
  if (!node) return lost();
  if (node.length() != leaf.length) return lost(kCorrupted);
  const int between = direction == Direction::kNext ? leaf.next : leaf.offset;
  repeats = (node.area().data()[between - kRecordPointerSize] & kRepeatBit) != 0;
  return 0;
}

// Goes to the neighbour and back to see whether it has the same key.
int compare_neighbour(const keydescr& k, Direction direction, bool& same) {
  if (read_item(ItemLayout{k}) != 0) return -1;
  const Item here = treeitem;
  if (btmove(k, direction) != 0) return -1;
  same = bt.ends == kOnItem && itcompare(treeitem, here, KeyOrder{k}) == 0;
  return btmove(k, direction == Direction::kNext ? Direction::kPrevious : Direction::kNext);
}

// Takes a position beside the items up again. In a tree that was empty it is before the first.
int stand_at_end_again(const keydescr& k) {
  if (bt.ends == kAfterLast) return btposition(k, Edge::kLast);
  if (btposition(k, Edge::kFirst) != 0) return -1;
  return bt.ends == kOnItem ? stop_at_end(Direction::kPrevious) : 0;
}

bool is_current(const Item& item, const keydescr& k) {
  return item.recptr == bt.item.recptr && item.dupnm == bt.item.dupnm &&
         itcompare(item, bt.item, KeyOrder{k}) == 0;
}

}  // namespace

void btchanged() {
  bt.depth = -1;
  treeitem_place = {};
  last_search = {};
}

void btnumber(std::int32_t number) {
  treeitem.recptr = number;
  treeitem_place = {};
}

int btposition(const keydescr& k, Edge edge) {
  const ItemLayout layout{k};
  const Direction inwards = edge == Edge::kFirst ? Direction::kNext : Direction::kPrevious;
  bt.ends = kOnItem;
  if (descend(layout, k.rootnode, 0, -1, inwards) != 0) return -1;
  return edge == Edge::kLast && bt.ends == kOnItem ? stop_at_end(Direction::kNext) : 0;
}

int btsearch(Item& item, const keydescr& k, int len, Search mode) {
  Descent descent{item, treeitem, k, len, mode};
  bt.ends = kOnItem;
  treeitem_place = {};
  last_search = {};
  if (mode == Search::kInsert) clear_state(kSameKeyNearby);
  std::int32_t number = k.rootnode;
  for (bt.depth = 0;; ++bt.depth) {
    const TreeNode node = node_at(bt.depth, number);
    if (!node) return -1;
    PathLevel& level = bt.level(bt.depth);
    if (level.length == 0) {
      bt.ends = kEmptyTree;
      return 0;
    }
    if (!descent.choose(node, level)) return lost();
    if (node.is_leaf()) {
      if (descent.met_equal()) bt.state |= kSameKeyNearby;
      if (!descent.on_greater()) break;
      if (!descent.take(node, level)) return lost();
      treeitem_place = {filep->cached.generation, level.node, level.offset};
      last_search = {filep->cached.generation, level.node, level.offset, descent.passed()};
      return 0;
    }
    number = child_before(node.area(), level.next);
  }
  if (mode < Search::kInsert) return btmove(k, Direction::kNext);
  PathLevel& leaf = bt.level(bt.depth);
  leaf.offset = leaf.next = leaf.length;
  last_search = {filep->cached.generation, leaf.node, leaf.offset, descent.passed()};
  return 0;
}

WalkStart btwalkstart(const Item& sought) {
  const PathLevel& leaf = bt.level(bt.depth);
  const bool known = last_search.passed > 0 && last_search.node == leaf.node &&
                     last_search.offset == leaf.offset &&
                     last_search.generation == filep->cached.generation;
  return known ? WalkStart{last_search.passed, sought.key} : WalkStart{};
}

int btmove(const keydescr& k, Direction direction) {
  if ((bt.ends & end_towards(direction)) != 0) return 0;
  if (k.nparts == 0) return move_number(direction);
  bt.ends = kOnItem;
  if (bt.depth < 0) {
    bt.ends = end_towards(direction);
    return 0;
  }
  const int leaf_depth = bt.depth;
  int depth = leaf_depth;
  while (depth >= 0 && !has_neighbour(bt.level(depth), direction)) --depth;
  if (depth < 0) return stop_at_end(direction);

  const ItemLayout layout{k};
  std::int32_t child = 0;
  {
    PathLevel& level = bt.level(depth);
    const TreeNode node{level.node};
    if (!node) return lost();
    if (node.length() != level.length) return lost(kCorrupted);
    if (depth == leaf_depth) return step_in_leaf(layout, node.area(), level, direction);
    child = step_above(layout, node.area(), level, direction);
  }
  return child < 0 ? -1 : descend(layout, child, depth + 1, leaf_depth, direction);
}

int btdups(const keydescr& k, Direction direction) {
  clear_state(kSameKeyNearby);
  if (k.nparts == 0 || bt.depth < 0 || bt.ends != kOnItem) return 0;
  const bool in_leaf = has_neighbour(bt.level(bt.depth), direction);
  bool same = false;
  const int result = (k.flags & KF_DCOMPRESS) != 0 && in_leaf
                         ? read_repeat_bit(direction, same)
                         : compare_neighbour(k, direction, same);
  if (same) bt.state |= kSameKeyNearby;
  return result;
}

int btcurrent(const keydescr& k, bool again) {
  if ((bt.state & kHasCurrent) == 0 || (again && (bt.state & kCurrentDeleted) != 0)) return -1;
  if (k.nparts == 0) return 0;
  if (bt.ends != kOnItem) return bt.depth >= 0 ? 0 : stand_at_end_again(k);
  const int found =
      bt.depth >= 0 ? read_item(ItemLayout{k}) : btsearch(bt.item, k, 0, Search::kRead);
  if (found != 0) return -1;
  if (bt.ends == kOnItem && is_current(treeitem, k)) return 0;
  clear_state(kCurrentRead | kCurrentDeleted);
  return again ? -1 : 0;
}

}  // namespace isam
