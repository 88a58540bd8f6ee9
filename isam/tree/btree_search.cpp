#include "isam/base/errors.h"
#include "isam/files/dictionary.h"
#include "isam/files/files.h"
#include "isam/tree/btree.h"
#include "isam/tree/descent.h"
#include "isam/tree/foundplace.h"
#include "isam/tree/pathahead.h"
#include "isam/tree/treenode.h"

namespace isam {

FoundPlace found_place;

namespace {

// Gives the path up: -1.
[[gnu::cold]] int lost(Cursor& cursor) {
  cursor.bt.depth = -1;
  return -1;
}

[[gnu::cold]] int lost(Cursor& cursor, Code code) {
  failed(code);
  return lost(cursor);
}

// Notes that treeitem is the item on the path.
void note_place(Cursor& cursor, const PathLevel& leaf) {
  cursor.place = {filep->cached.generation, leaf.node, leaf.offset};
}

// Puts the path on the leaf's item at `offset`, which has been read into treeitem; `next` is the
// offset of the item behind it.
void arrived(Cursor& cursor, PathLevel& leaf, int offset, int next) {
  leaf.offset = offset;
  leaf.next = next;
  note_place(cursor, leaf);
}

// Notes that a search has come to the path's place in the leaf.
void note_search(Cursor& cursor, const PathLevel& leaf, const Descent& descent) {
  cursor.searched = {filep->cached.generation, leaf.node, leaf.offset, descent.passed(),
                     descent.behind_equal()};
}

// Whether the path is where the last search has come to.
bool is_at_search(const Cursor& cursor) {
  const PathLevel& leaf = cursor.bt.leaf();
  const LastSearch& last = cursor.searched;
  return last.node == leaf.node && last.offset == leaf.offset &&
         last.generation == filep->cached.generation;
}

// The child that the item ending at `end` names.
std::int32_t child_before(ConstBytes area, int end) {
  return stored_recptr(area.data() + end - kRecordPointerSize);
}

Ends end_towards(Direction direction) {
  return direction == Direction::kNext ? kAfterLast : kBeforeFirst;
}

bool has_neighbour(const PathLevel& level, Direction direction) {
  return direction == Direction::kNext ? level.next < level.length : level.offset > 0;
}

// Reads a node into the path. Damage is a node without items, unless it is the root and a leaf, and
// an upper node at the lowest level that a path can have.
TreeNode node_at(Cursor& cursor, int depth, std::int32_t number) {
  TreeNode node{number};
  if (!node) {
    lost(cursor);
    return node;
  }
  const bool too_deep = depth >= kMaxTreeLevels - 1 && !node.is_leaf();
  const bool astray = node.length() == 0 && (depth > 0 || !node.is_leaf());
  if (too_deep || astray) {
    lost(cursor, kCorrupted);
    return TreeNode{};
  }
  cursor.bt.level(depth) = {number, 0, 0, node.length()};
  return node;
}

// Stands beside the items of a node, so that a step in `direction` comes to the first or last one.
void stand_outside(PathLevel& level, Direction direction) {
  level.offset = level.next = direction == Direction::kNext ? 0 : level.length;
}

// Steps to the neighbour item within an upper node: its child, or -1.
std::int32_t step_above(Cursor& cursor, const ItemLayout& layout, ConstBytes area, PathLevel& level,
                        Direction direction) {
  if (direction == Direction::kNext) {
    StoredItem stored;
    if (!itlocate(layout, area, level.next, stored)) return lost(cursor, kCorrupted);
    level.offset = level.next;
    level.next = stored.end;
    // A scan goes on to the child behind this one: its memory is fetched meanwhile.
    if (itlocate(layout, area, level.next, stored)) bfexpect(child_before(area, stored.end));
  } else {
    const int start = itbefore(layout, area, level.offset);
    if (start < 0) return lost(cursor, kCorrupted);
    level.next = level.offset;
    level.offset = start;
  }
  return child_before(area, level.next);
}

bool treeitem_is_at(const Cursor& cursor, const PathLevel& leaf) {
  return cursor.place.node == leaf.node && cursor.place.offset == leaf.offset &&
         cursor.place.generation == filep->cached.generation;
}

// Steps to the neighbour item within a leaf and unpacks it into treeitem. A step forward needs the
// key of the item that it leaves, because items leave out what they share with the one before:
// treeitem has that key, or the item is read first.
int step_in_leaf(Cursor& cursor, const ItemLayout& layout, ConstBytes area, PathLevel& leaf,
                 Direction direction) {
  const bool known = treeitem_is_at(cursor, leaf);
  cursor.place = {};
  if (direction == Direction::kPrevious) {
    const int start = itprevious(layout, area, leaf.offset, cursor.treeitem);
    if (start < 0) return lost(cursor, kCorrupted);
    arrived(cursor, leaf, start, leaf.offset);
    return 0;
  }
  const int pos = leaf.next;
  if (pos > 0 && !known && itprevious(layout, area, pos, cursor.treeitem) < 0) {
    return lost(cursor, kCorrupted);
  }
  const int next =
      itunpack(layout, area, pos, pos > 0 ? cursor.treeitem.key : kNoKey, cursor.treeitem);
  if (next < 0) return lost(cursor, kCorrupted);
  arrived(cursor, leaf, pos, next);
  return 0;
}

// Goes down from node `number` at level `depth` of the path to the outermost item of a leaf, which
// lies at `leaf_depth` unless that is below 0.
int descend(Cursor& cursor, const ItemLayout& layout, std::int32_t number, int depth,
            int leaf_depth, Direction direction) {
  for (;; ++depth) {
    const TreeNode node = node_at(cursor, depth, number);
    if (!node) return -1;
    if (leaf_depth >= 0 && node.is_leaf() != (depth == leaf_depth)) return lost(cursor, kCorrupted);
    PathLevel& level = cursor.bt.level(depth);
    stand_outside(level, direction);
    if (node.is_leaf()) {
      cursor.bt.depth = depth;
      if (level.length > 0) return step_in_leaf(cursor, layout, node.area(), level, direction);
      cursor.bt.ends = kEmptyTree;
      return 0;
    }
    number = step_above(cursor, layout, node.area(), level, direction);
    if (number < 0) return -1;
  }
}

// There is no item in this direction: the path, which is on the outermost one, is put beside it.
// One of its two offsets is at that end already; the other one goes there, too.
int stop_at_end(Position& bt, Direction direction) {
  bt.ends = end_towards(direction);
  if (direction == Direction::kNext) {
    bt.leaf().offset = bt.leaf().length;
  } else {
    bt.leaf().next = 0;
  }
  return 0;
}

// Reads the dictionary again, unless this process has changed its copy: 0, or -1 with iserrno.
int refresh_dictionary() { return filep->unwritten.dictionary ? 0 : dictread(); }

// Moves the number of a key without parts. Past an end it stands one beyond.
int move_number(Cursor& cursor, Direction direction) {
  Position& bt = cursor.bt;
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
  btnumber(cursor, number);
  return 0;
}

// Reads the item on the path into treeitem.
int read_item(Cursor& cursor, const ItemLayout& layout) {
  const PathLevel& leaf = cursor.bt.leaf();
  if (treeitem_is_at(cursor, leaf)) return 0;
  cursor.place = {};
  const TreeNode node{leaf.node};
  if (!node) return lost(cursor);
  if (node.length() != leaf.length ||
      itprevious(layout, node.area(), leaf.next, cursor.treeitem) != leaf.offset) {
    return lost(cursor, kCorrupted);
  }
  note_place(cursor, leaf);
  return 0;
}

// Whether the item on the path and its neighbour, which is in the leaf too, have the same key: 0,
// or -1 with iserrno. The repeat bit says so, in the record pointer that ends the first of them.
int read_repeat_bit(Cursor& cursor, Direction direction, bool& repeats) {
  const PathLevel& leaf = cursor.bt.leaf();
  const TreeNode node{leaf.node};
  if (!node) return lost(cursor);
  if (node.length() != leaf.length) return lost(cursor, kCorrupted);
  const int between = direction == Direction::kNext ? leaf.next : leaf.offset;
  repeats = repeats_at(node.area(), between);
  return 0;
}

// Goes to the neighbour and back to see whether it has the same key.
int compare_neighbour(Cursor& cursor, const keydescr& k, Direction direction, bool& same) {
  if (read_item(cursor, ItemLayout{k}) != 0) return -1;
  const Item here = cursor.treeitem;
  if (btmove(cursor, k, direction) != 0) return -1;
  same = cursor.bt.ends == kOnItem && itcompare(cursor.treeitem, here, KeyOrder{k}) == 0;
  return btmove(cursor, k, direction == Direction::kNext ? Direction::kPrevious : Direction::kNext);
}

// Takes a position beside the items up again. In a tree that was empty it is before the first.
int stand_at_end_again(Cursor& cursor, const keydescr& k) {
  if (cursor.bt.ends == kAfterLast) return btposition(cursor, k, Edge::kLast);
  if (btposition(cursor, k, Edge::kFirst) != 0) return -1;
  return cursor.bt.ends == kOnItem ? stop_at_end(cursor.bt, Direction::kPrevious) : 0;
}

bool is_same(const Item& a, const Item& b, const keydescr& k) {
  return a.recptr == b.recptr && a.dupnm == b.dupnm && itcompare(a, b, KeyOrder{k}) == 0;
}

// What a search has come to.
enum class Met {
  kFailed,
  kEmptyTree,
  kGreater,     // an item greater than the one sought: the path is on it, and after a search that
                // reads it is treeitem
  kLastPassed,  // the end of a leaf without one; the path is on its last item
};

// Goes down from node `number` by what `descent` chooses in each node, to the leaf in which the
// search ends. The path has what lies above, and that node's depth.
Met go_down(Cursor& cursor, Descent& descent, std::int32_t root, std::int32_t number) {
  Position& bt = cursor.bt;
  const ItemLayout& layout = descent.layout();
  bool may_be_kept = number == root;  // a way found ahead ends at a leaf, and leaves are not kept
  for (;; ++bt.depth) {
    PathLevel& level = bt.leaf();
    const UpperNode* const upper =
        may_be_kept && bt.depth < kMaxTreeLevels - 1 ? find_upper(number, layout) : nullptr;
    if (upper != nullptr) {
      level = {number, 0, 0, upper->length()};
      number = descent.choose(*upper, level);
      if (number < 0) return Met::kFailed;
      may_be_kept = !upper->is_above_leaves();
      continue;
    }
    TreeNode node = node_at(cursor, bt.depth, number);
    if (!node) return Met::kFailed;
    if (level.length == 0) return Met::kEmptyTree;
    if (!descent.choose(node, level)) return Met::kFailed;
    if (node.is_leaf()) {
      if (descent.met_equal()) bt.state |= kSameKeyNearby;
      if (!descent.on_greater()) return Met::kLastPassed;
      if (!layout.dups && !layout.compressed()) {
        found_place = {root, number, level.offset, PageStamp{node.page()}};
      }
      if (!descent.reads()) return Met::kGreater;
      return descent.take(node, level) ? Met::kGreater : Met::kFailed;
    }
    note_upper(number, node, layout);
    number = child_before(node.area(), level.next);
  }
}

}  // namespace

void btchanged(Cursor& cursor) {
  cursor.bt.depth = -1;
  cursor.place = {};
  cursor.searched = {};
}

void btnumber(Cursor& cursor, std::int32_t number) {
  cursor.treeitem.recptr = number;
  cursor.place = {};
}

int btposition(Cursor& cursor, const keydescr& k, Edge edge) {
  const ItemLayout layout{k};
  const Direction inwards = edge == Edge::kFirst ? Direction::kNext : Direction::kPrevious;
  cursor.bt.ends = kOnItem;
  if (descend(cursor, layout, k.rootnode, 0, -1, inwards) != 0) return -1;
  const bool goes_behind = edge == Edge::kLast && cursor.bt.ends == kOnItem;
  return goes_behind ? stop_at_end(cursor.bt, Direction::kNext) : 0;
}

int btsearch(Cursor& cursor, Item& item, const keydescr& k, int len, Search mode,
             const PathAhead* ahead) {
  Descent descent{item, cursor.treeitem, k, len, mode};
  Position& bt = cursor.bt;
  bt.ends = kOnItem;
  cursor.place = {};
  cursor.searched = {};
  if (mode == Search::kInsert) bt.clear(kSameKeyNearby);
  bt.depth = 0;
  const std::int32_t leaf = ahead == nullptr ? 0 : ahead->take(item, k, mode, bt);
  switch (go_down(cursor, descent, k.rootnode, leaf > 0 ? leaf : k.rootnode)) {
    case Met::kFailed:
      return lost(cursor);
    case Met::kEmptyTree:
      bt.ends = kEmptyTree;
      return 0;
    case Met::kGreater:
      if (descent.reads()) note_place(cursor, bt.leaf());
      break;
    case Met::kLastPassed:
      // A read goes on to the first item of the next leaf; an insertion stays in this one.
      if (mode < Search::kInsert) return btmove(cursor, k, Direction::kNext);
      bt.leaf().offset = bt.leaf().next = bt.leaf().length;
      break;
  }
  note_search(cursor, bt.leaf(), descent);
  return 0;
}

WalkStart btwalkstart(const Cursor& cursor, const Item& sought) {
  const int passed = cursor.searched.passed;
  return passed > 0 && is_at_search(cursor) ? WalkStart{passed, sought.key} : WalkStart{};
}

bool btbehindequal(const Cursor& cursor) {
  return cursor.searched.behind_equal && is_at_search(cursor);
}

int btmove(Cursor& cursor, const keydescr& k, Direction direction) {
  Position& bt = cursor.bt;
  if ((bt.ends & end_towards(direction)) != 0) return 0;
  if (k.nparts == 0) return move_number(cursor, direction);
  bt.ends = kOnItem;
  if (bt.depth < 0) {
    bt.ends = end_towards(direction);
    return 0;
  }
  const int leaf_depth = bt.depth;
  int depth = leaf_depth;
  while (depth >= 0 && !has_neighbour(bt.level(depth), direction)) --depth;
  if (depth < 0) return stop_at_end(bt, direction);

  const ItemLayout layout{k};
  std::int32_t child = 0;
  {  // the node's page is released before descend() reads others
    PathLevel& level = bt.level(depth);
    const TreeNode node{level.node};
    if (!node) return lost(cursor);
    if (node.length() != level.length) return lost(cursor, kCorrupted);
    if (depth == leaf_depth) return step_in_leaf(cursor, layout, node.area(), level, direction);
    child = step_above(cursor, layout, node.area(), level, direction);
  }
  return child < 0 ? -1 : descend(cursor, layout, child, depth + 1, leaf_depth, direction);
}

int btdups(Cursor& cursor, const keydescr& k, Direction direction) {
  Position& bt = cursor.bt;
  bt.clear(kSameKeyNearby);
  if (k.nparts == 0 || bt.depth < 0 || bt.ends != kOnItem) return 0;
  const bool in_leaf = has_neighbour(bt.leaf(), direction);
  bool same = false;
  const int result = (k.flags & KF_DCOMPRESS) != 0 && in_leaf
                         ? read_repeat_bit(cursor, direction, same)
                         : compare_neighbour(cursor, k, direction, same);
  if (same) bt.state |= kSameKeyNearby;
  return result;
}

int btcurrent(Cursor& cursor, const keydescr& k, bool again) {
  Position& bt = cursor.bt;
  if ((bt.state & kHasCurrent) == 0 || (again && (bt.state & kCurrentDeleted) != 0)) return -1;
  if (k.nparts == 0) return 0;
  const bool has_path = bt.depth >= 0;
  if (bt.ends != kOnItem) return has_path ? 0 : stand_at_end_again(cursor, k);
  const int found =
      has_path ? read_item(cursor, ItemLayout{k}) : btsearch(cursor, bt.item, k, 0, Search::kRead);
  if (found != 0) return -1;
  if (bt.ends == kOnItem && is_same(cursor.treeitem, bt.item, k)) return 0;
  bt.clear(kCurrentRead | kCurrentDeleted);
  return again ? -1 : 0;
}

}  // namespace isam
