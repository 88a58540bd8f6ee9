#include <array>
#include <cstring>

#include "isam/base/errors.h"
#include "isam/base/walklimit.h"
#include "isam/records/freelists.h"
#include "isam/tree/btree.h"
#include "isam/tree/foundplace.h"
#include "isam/tree/pathahead.h"
#include "isam/tree/treenode.h"

namespace isam {
namespace {

// A node as it was, to be put back.
class NodeImage {
 public:
  // False with iserrno when the node cannot be read.
  [[nodiscard]] bool take(std::int32_t number) {
    TreeNode node{number};
    if (!node) return false;
    node_type_ = node.page().node_type();
    level_ = node.page().level();
    length_ = node.length();
    std::memcpy(area_.data(), node.area().data(), node.area().size());
    return true;
  }
  bool put(std::int32_t number) const {
    PageHold page = bfgetclr(number);
    if (!page) return false;
    std::memcpy(page.data() + kUsedBytes, area_.data(), static_cast<std::size_t>(length_));
    page.set_frame(length_ + kUsedBytes, node_type_, level_);
    return true;
  }

  [[nodiscard]] bool is_tree_node() const { return node_type_ == kTreeNode; }
  [[nodiscard]] bool is_leaf() const { return level_ == kLeafLevel; }
  [[nodiscard]] ConstBytes area() const {
    return {area_.data(), static_cast<std::size_t>(length_)};
  }

 private:
  Byte node_type_ = 0;
  Byte level_ = 0;
  int length_ = 0;
  std::array<Byte, kMaxNodeSize> area_;
};

// Takes `size` bytes at `pos` out of an area: its new length.
int close_gap(Bytes room, int length, int pos, int size) {
  Byte* const gone = room.data() + pos;
  std::memmove(gone, gone + size, static_cast<std::size_t>(length - pos - size));
  std::memset(room.data() + length - size, 0, static_cast<std::size_t>(size));
  return length - size;
}

// take_out() without compression: no item depends on the one before it.
int take_out_fixed(const ItemLayout& layout, Bytes room, int length, int pos) {
  const int size = layout.fixed_size();
  if (pos % size != 0 || length % size != 0 || pos >= length) return failed(kCorrupted);
  return close_gap(room, length, pos, size);
}

// take_out() of an item that repeats the key before it, for which no other item is stored anew.
int take_out_repeat(const ItemLayout& layout, Bytes room, int length, int pos) {
  const int size = layout.repeat_size();
  if (length - pos < size) return failed(kCorrupted);
  const bool next_repeats = repeats_at(room, pos + size);
  if (!next_repeats) room[static_cast<std::size_t>(pos - kRecordPointerSize)] &= kRecordPointerMask;
  return close_gap(room, length, pos, size);
}

// Takes the item at `pos` out of an area: its new length, or -1 with 105 and nothing changed.
int take_out(const ItemLayout& layout, Bytes room, int length, int pos, const WalkStart& start) {
  const ConstBytes area = room.first(static_cast<std::size_t>(length));
  if (!layout.compressed()) return take_out_fixed(layout, room, length, pos);
  if (layout.repeats_stand_alone() && pos >= kRecordPointerSize && pos < length &&
      repeats_at(area, pos)) {
    return take_out_repeat(layout, room, length, pos);
  }
  Item prev;
  Item gone;
  if (pos >= length || (pos > 0 && itprevious(layout, area, pos, prev, start) < 0)) {
    return failed(kCorrupted);
  }
  const int end = itunpack(layout, area, pos, pos > 0 ? prev.key : kNoKey, gone);
  if (end < 0) return failed(kCorrupted);
  int total = pos;
  if (end < length) {
    Item next;
    const int next_end = itunpack(layout, area, end, gone.key, next);
    if (next_end < 0) return failed(kCorrupted);
    itpress(layout, &prev, next, pos > 0 ? Press::kAfter : Press::kFirst);
    const int rest = length - next_end;
    total = pos + next.totln + rest;
    if (total > static_cast<int>(room.size())) return failed(kCorrupted);
    std::memmove(room.data() + total - rest, room.data() + next_end,
                 static_cast<std::size_t>(rest));
    itpack(layout, next, room, pos);
  } else if (pos > 0) {
    room[static_cast<std::size_t>(pos - kRecordPointerSize)] &= kRecordPointerMask;
  }
  if (total < length) {
    std::memset(room.data() + total, 0, static_cast<std::size_t>(length - total));
  }
  return total;
}

// Removes the path's item from its node at `depth`. Only the root may become empty by that.
int remove_item(const Cursor& cursor, const ItemLayout& layout, int depth,
                const WalkStart& start = {}) {
  const PathLevel& at = cursor.bt.level(depth);
  TreeNode node{at.node};
  if (!node) return -1;
  if (node.length() != at.length) return failed(kCorrupted);
  const int length = take_out(layout, node.to_change(), at.length, at.offset, start);
  if (length < 0) return -1;
  node.changed(length);
  // An empty root is a leaf.
  if (length == 0) node.page().set_frame(kUsedBytes, node.page().node_type(), kLeafLevel);
  return 0;
}

// The lowest level of the path whose node keeps items when those below it go, or the root; -1 with
// iserrno.
int lowest_level_kept(const Cursor& cursor, const ItemLayout& layout) {
  int depth = cursor.bt.depth;
  if (cursor.bt.leaf().offset > 0) return depth;  // an item stands before it
  for (; depth > 0; --depth) {
    const TreeNode node{cursor.bt.level(depth).node};
    StoredItem only;
    if (!node) return -1;
    if (node.length() == 0 || !itlocate(layout, node.area(), 0, only)) return failed(kCorrupted);
    if (only.end < node.length()) break;
  }
  return depth;
}

// Frees a node whose only item goes, and empties it: 0, or -1 with iserrno and the node as it was.
int free_emptied(std::int32_t number) {
  NodeImage before;
  if (!before.take(number) || !NodeImage{}.put(number)) return -1;
  if (freerec(number, FreeList::kNodes) == 0) return 0;
  before.put(number);
  return -1;
}

// Removes the item on the path, and with it the nodes that it leaves empty. A walk to the item
// before it may begin at `start`.
int btremove(const Cursor& cursor, const ItemLayout& layout, const WalkStart& start) {
  const int top = lowest_level_kept(cursor, layout);
  if (top < 0) return -1;
  if (top == cursor.bt.depth) return remove_item(cursor, layout, top, start);
  PathAhead::upper_changes();
  NodeImage before;
  if (!before.take(cursor.bt.level(top).node) || remove_item(cursor, layout, top) != 0) return -1;
  if (free_emptied(cursor.bt.leaf().node) != 0) {
    before.put(cursor.bt.level(top).node);
    return -1;
  }
  // A node above the leaf that cannot be freed is lost to the file; the tree is sound without it.
  const std::int32_t error = iserrno;
  for (int depth = cursor.bt.depth - 1; depth > top; --depth)
    free_emptied(cursor.bt.level(depth).node);
  iserrno = error;
  return 0;
}

// Takes out the item that a search has just come to, if it is this one and not its leaf's only one:
// whether it has.
bool remove_found(const Item& item, const keydescr& k) {
  if (found_place.root != k.rootnode || !found_place.stamp.stands()) return false;
  const ItemLayout layout{k};
  const int size = layout.fixed_size();
  const int offset = found_place.offset;
  const KeepError keep;
  TreeNode node{found_place.leaf};
  if (!node || layout.compressed() || layout.dups) return false;
  const int length = node.length();
  if (length == size || length % size != 0 || offset % size != 0 || offset >= length) return false;
  const Byte* const stored = node.area().data() + offset;
  const bool is_it = std::memcmp(stored, item.key, static_cast<std::size_t>(layout.keylen)) == 0 &&
                     stored_recptr(stored + layout.keylen) == item.recptr;
  if (is_it) node.changed(take_out_fixed(layout, node.to_change(), length, offset));
  return is_it;
}

// Goes on from an item, within its leaf, over those that repeat its key and store nothing but their
// numbers, to that of the record of `item`, whose duplicate number it tells: whether it is there.
// Otherwise the path is left on the last of them. `passed`: the item before the one sought, or this
// last one.
bool skip_to_record(Cursor& cursor, const ItemLayout& layout, Item& item, int& passed) {
  PathLevel& leaf = cursor.bt.leaf();
  passed = leaf.offset;
  const KeepError keep;
  const TreeNode node{leaf.node};
  if (!node || !layout.dcompress || node.length() != leaf.length) return false;
  const ConstBytes area = node.area();
  const Byte* const bytes = area.data();
  const int size = layout.repeat_size();
  while (leaf.next + size <= leaf.length && repeats_at(area, leaf.next)) {
    passed = leaf.offset;
    leaf.offset = leaf.next;
    leaf.next += size;
    if (stored_recptr(bytes + leaf.offset + layout.dupwidth) == item.recptr) {
      item.dupnm = stored_dupnm(layout, bytes + leaf.offset);
      return true;
    }
  }
  passed = leaf.offset;
  return false;
}

int delete_item(Cursor& cursor, Item& item, const keydescr& k, const PathAhead* ahead) {
  if (remove_found(item, k)) {
    item.dupnm = 0;
    return 0;
  }
  Item sought = item;
  if (btsearch(cursor, sought, k, 0, Search::kRead, ahead) != 0) return -1;
  const KeyOrder order{k};
  const ItemLayout layout{k};
  WalkStart start = cursor.bt.ends == kOnItem ? btwalkstart(cursor, sought) : WalkStart{};
  WalkLimit walk;
  while ((cursor.bt.ends & kAfterLast) == 0 && itcompare(cursor.treeitem, sought, order) == 0) {
    if (cursor.treeitem.recptr == sought.recptr) {
      item.dupnm = cursor.treeitem.dupnm;
      return btremove(cursor, layout, start);
    }
    if (walk.exceeded()) return failed(kCorrupted);
    int passed = 0;
    if (order.bytewise() && skip_to_record(cursor, layout, item, passed)) {
      return btremove(cursor, layout, {passed, sought.key});
    }
    if (btmove(cursor, k, Direction::kNext) != 0) return -1;
    // What the item passed takes over from the one before it stands in its own key too, so in that
    // of `sought`. Where order is not bytewise, equal keys may have other bytes. (The first item of
    // another leaf needs no start.)
    start = order.bytewise() ? WalkStart{passed, sought.key} : WalkStart{};
  }
  return failed(kNoRecord);
}

// Frees the nodes of an index, children first: 0, or -1 with iserrno when something was left.
class NodeRecovery {
 public:
  explicit NodeRecovery(const keydescr& k) : layout_(k), nodes_(dictp->d_nextnode()) {}

  int free_subtree(std::int32_t number, int depth);

 private:
  int free_children(ConstBytes area, int depth);

  ItemLayout layout_;
  StepLimit nodes_;  // of the file: no index has more
};

int NodeRecovery::free_children(ConstBytes area, int depth) {
  int result = 0;
  ItemWalk walk{layout_, area};
  while (!walk.is_last()) {
    if (!walk.next()) return failed(kCorrupted);
    const Byte* const pointer = area.data() + walk.end() - kRecordPointerSize;
    if (free_subtree(stored_recptr(pointer), depth) != 0) result = -1;
  }
  return result;
}

int NodeRecovery::free_subtree(std::int32_t number, int depth) {
  if (depth == kMaxTreeLevels || number > dictp->d_nextnode() || nodes_.exceeded()) {
    return failed(kCorrupted);
  }
  NodeImage node;
  if (!node.take(number)) return -1;
  const bool astray = depth > 0 && node.area().empty();
  if (!node.is_tree_node() || astray) return failed(kCorrupted);
  // Empty from now on, so that a second way to it leads nowhere.
  if (!NodeImage{}.put(number)) return -1;
  const int children = node.is_leaf() ? 0 : free_children(node.area(), depth + 1);
  const int freed = freerec(number, FreeList::kNodes);
  return children == 0 ? freed : -1;
}

}  // namespace

int btdelitem(Cursor& cursor, Item& item, const keydescr& k, const PathAhead* ahead) {
  const int result = k.nparts == 0 ? 0 : delete_item(cursor, item, k, ahead);
  btchanged(cursor);
  return result;
}

int btrecover(std::int32_t root, const keydescr& k) {
  return root == 0 ? 0 : NodeRecovery{k}.free_subtree(root, 0);
}

}  // namespace isam
