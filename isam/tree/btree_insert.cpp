#include <algorithm>
#include <array>
#include <cstring>

#include "isam/base/errors.h"
#include "isam/records/freelists.h"
#include "isam/tree/btree.h"
#include "isam/tree/pathahead.h"
#include "isam/tree/rightedge.h"
#include "isam/tree/treenode.h"
#include "isam/tree/uppernodes.h"

namespace isam {
namespace {

// Counts of compressed bytes, key, duplicate number, record pointer.
constexpr int kLargestItem = 2 + MAXKEYLEN + 4 + kRecordPointerSize;
// An old item area, the item inserted and the growth of the item behind it.
constexpr std::size_t kScratchSize = kMaxNodeSize + 2 * kLargestItem;

struct Frame {
  Byte node_type;
  Byte level;
};

// Whether the insertion is at the right edge of the whole tree: ascending keys.
bool btlarge(const Cursor& cursor) {
  const Position& bt = cursor.bt;
  for (int depth = 0; depth < bt.depth; ++depth) {
    if (bt.level(depth).next != bt.level(depth).length) return false;
  }
  return bt.leaf().offset == bt.leaf().length;
}

// Inserts into the nodes of the path, from the leaf up as far as nodes overflow. Everything above
// a node has been changed before the node itself is, so that a failure leaves the tree as it was.
class Insertion {
 public:
  Insertion(const Cursor& cursor, const keydescr& k)
      : cursor_(cursor),
        key_(k),
        layout_(k),
        right_edge_(btlarge(cursor)),
        limit_(item_area_limit(filep->geometry.idxsize)) {}

  // Inserts at the path's place at `depth`: 0, or -1 with iserrno.
  int btinsert(Item& item, int depth) const;

 private:
  // How an item goes between its neighbours.
  struct Seam {
    Item next;  // the item behind it, pressed anew
    bool has_next;
    int old_next_end;  // where that item ended; without one, the place of insertion
    int total;         // length of the whole area afterwards
  };
  // A split of an item area behind one of its items.
  struct Cut {
    int start;       // of that item
    int end;         // of that item
    int first_end;   // of the item behind it
    Item separator;  // that item as it was
    Item last;       // that item as the left part's last
    Item first;      // the item behind it as the right part's first
  };
  // An item area that is too long for its node, with the new item in it.
  struct Overflow {
    std::int32_t node;
    int depth;
    Frame frame;
    int old_length;    // without the new item
    int inserted_end;  // of the new item
    ConstBytes area;
  };

  [[nodiscard]] bool plan(ConstBytes area, int pos, bool leaf, Item& item, Seam& seam) const;
  void weave(Bytes area, int length, int pos, const Item& item, const Seam& seam) const;
  int insert_in_two(TreeNode node, const Item& item, int depth, const Seam& seam) const;
  [[nodiscard]] bool find_separator(const Overflow& full, int least_end, Cut& cut) const;
  [[nodiscard]] bool press_ends(const Overflow& full, Cut& cut) const;
  [[nodiscard]] bool press_upper_end(const Overflow& full, Cut& cut) const;
  [[nodiscard]] bool cut_at(const Overflow& full, int least_end, Cut& cut) const;
  [[nodiscard]] bool choose_cut(const Overflow& full, Cut& cut) const;
  int split(const Overflow& full, const Cut& cut) const;
  int split_root(const Overflow& full, const Cut& cut) const;
  [[nodiscard]] int put_left(std::int32_t node, const Overflow& full, const Cut& cut) const;
  [[nodiscard]] int put_right(std::int32_t node, const Overflow& full, const Cut& cut) const;

  const Cursor& cursor_;  // on the place of the insertion
  const keydescr& key_;
  ItemLayout layout_;
  bool right_edge_;
  int limit_;  // bytes of a node's item area
};

// Presses `item` for its place at `pos`, and the item behind it anew: `seam`. False when the area's
// bytes make no items.
bool Insertion::plan(ConstBytes area, int pos, bool leaf, Item& item, Seam& seam) const {
  const auto length = static_cast<int>(area.size());
  if (pos > length || (!leaf && pos == length)) return false;
  item.flag = 0;
  if (leaf && !layout_.compressed()) {  // no item depends on the one before it
    itpress(layout_, nullptr, item, Press::kFirst);
    seam.total = length + item.totln;
    seam.old_next_end = pos;
    seam.has_next = false;
    return pos % item.totln == 0 && length % item.totln == 0;
  }
  Item prev;
  if (pos > 0) {
    const WalkStart start = leaf ? btwalkstart(cursor_, item) : WalkStart{};
    if (itprevious(layout_, area, pos, prev, start) < 0) return false;
    itpress(layout_, &prev, item, Press::kAfter);
  } else {
    itpress(layout_, nullptr, item, Press::kFirst);
  }
  seam.total = length + item.totln;
  seam.old_next_end = pos;
  seam.has_next = pos < length;
  if (!seam.has_next) return true;
  seam.old_next_end = itunpack(layout_, area, pos, pos > 0 ? prev.key : kNoKey, seam.next);
  if (seam.old_next_end < 0) return false;
  seam.total -= seam.next.totln;
  // The key of an upper node's last item carries no meaning, and a repeated one compresses best.
  if (!leaf && seam.old_next_end == length) {
    std::memcpy(seam.next.key, item.key, static_cast<std::size_t>(layout_.keylen));
  }
  itpress(layout_, &item, seam.next, Press::kAfter);
  seam.total += seam.next.totln;
  return true;
}

// Puts in what plan() has pressed. `area` has room for seam.total bytes, of which `length` are in
// use.
void Insertion::weave(Bytes area, int length, int pos, const Item& item, const Seam& seam) const {
  const int rest = length - seam.old_next_end;
  Byte* const bytes = area.data();
  std::memmove(bytes + seam.total - rest, bytes + seam.old_next_end,
               static_cast<std::size_t>(rest));
  pos = itpack(layout_, item, area, pos);
  if (seam.has_next) itpack(layout_, seam.next, area, pos);
  if (seam.total < length) {
    std::memset(bytes + seam.total, 0, static_cast<std::size_t>(length - seam.total));
  }
}

int Insertion::btinsert(Item& item, int depth) const {
  const PathLevel& at = cursor_.bt.level(depth);
  Seam seam;
  TreeNode node{at.node};
  if (!node) return -1;
  if (node.length() != at.length || !plan(node.area(), at.offset, node.is_leaf(), item, seam)) {
    return failed(kCorrupted);
  }
  if (seam.total > limit_) return insert_in_two(std::move(node), item, depth, seam);
  UpperNode* const kept = node.is_leaf() ? nullptr : kept_upper(at.node, node.page(), layout_);
  weave(node.to_change(), at.length, at.offset, item, seam);
  node.changed(seam.total);
  if (kept != nullptr) kept->insert(node, layout_, at.offset, item, seam.next);
  if (right_edge_ && depth == cursor_.bt.depth) right_edges.note(key_, node.page(), item);
  return 0;
}

// Puts in what plan() has pressed where the node has no room for it.
int Insertion::insert_in_two(TreeNode node, const Item& item, int depth, const Seam& seam) const {
  PathAhead::upper_changes();
  const PathLevel& at = cursor_.bt.level(depth);
  const Frame frame{node.page().node_type(), node.page().level()};
  std::array<Byte, kScratchSize> scratch;
  std::memcpy(scratch.data(), node.area().data(), node.area().size());
  node = TreeNode{};  // the nodes that a split changes are held one after the other
  weave(scratch, at.length, at.offset, item, seam);
  const Overflow full{at.node,
                      depth,
                      frame,
                      at.length,
                      at.offset + item.totln,
                      {scratch.data(), static_cast<std::size_t>(seam.total)}};
  Cut cut;
  if (!choose_cut(full, cut)) return failed(kCorrupted);
  return depth > 0 ? split(full, cut) : split_root(full, cut);
}

// Goes to the first item that ends at or beyond `least_end`. False when only the last one does,
// behind which nothing can be cut, or when the area's bytes make no items.
bool Insertion::find_separator(const Overflow& full, int least_end, Cut& cut) const {
  const auto total = static_cast<int>(full.area.size());
  const Byte* previous = kNoKey;
  cut.end = 0;
  do {
    cut.start = cut.end;
    cut.end = itunpack(layout_, full.area, cut.start, previous, cut.separator);
    previous = cut.separator.key;
  } while (cut.end >= 0 && cut.end < least_end);
  return cut.end >= 0 && cut.end < total;
}

// Presses the items on both sides of the cut for their new places: whether both parts fit a node.
bool Insertion::press_ends(const Overflow& full, Cut& cut) const {
  cut.last = cut.separator;
  if (full.frame.level != kLeafLevel && !press_upper_end(full, cut)) return false;
  cut.last.flag &= ~kNextRepeats;
  cut.first_end = itunpack(layout_, full.area, cut.end, cut.separator.key, cut.first);
  if (cut.first_end < 0) return false;
  itpress(layout_, nullptr, cut.first, Press::kFirst);
  const int left = cut.start + cut.last.totln;
  const int right = cut.first.totln + static_cast<int>(full.area.size()) - cut.first_end;
  return left <= limit_ && right <= limit_;
}

// The key of an upper node's last item carries no meaning, so it repeats the one before it.
bool Insertion::press_upper_end(const Overflow& full, Cut& cut) const {
  Item before;
  const bool is_only = cut.start == 0;
  if (!is_only && itprevious(layout_, full.area, cut.start, before) < 0) return false;
  itpress(layout_, &before, cut.last, is_only ? Press::kFirst : Press::kRepeat);
  return true;
}

// Cuts behind the first item that ends at or beyond `least_end`, if both parts then fit a node.
bool Insertion::cut_at(const Overflow& full, int least_end, Cut& cut) const {
  return find_separator(full, least_end, cut) && press_ends(full, cut);
}

bool Insertion::choose_cut(const Overflow& full, Cut& cut) const {
  // Ascending keys leave full nodes behind: only the last item goes to the right part.
  if (right_edge_) {
    const bool leaf = full.frame.level == kLeafLevel;
    if (cut_at(full, leaf ? full.old_length : full.inserted_end, cut)) return true;
  }
  if (cut_at(full, limit_ / 2, cut)) return true;
  // A small node may hold so few large items that neither of these cuts fits.
  for (int least_end = 1; find_separator(full, least_end, cut); least_end = cut.end + 1) {
    if (press_ends(full, cut)) return true;
  }
  return false;
}

int Insertion::put_left(std::int32_t node, const Overflow& full, const Cut& cut) const {
  PageHold page = bfgetclr(node);
  if (!page) return -1;
  const Bytes area = page.bytes().subspan(kUsedBytes);
  std::memcpy(area.data(), full.area.data(), static_cast<std::size_t>(cut.start));
  const int length = itpack(layout_, cut.last, area, cut.start);
  page.set_frame(length + kUsedBytes, full.frame.node_type, full.frame.level);
  return 0;
}

int Insertion::put_right(std::int32_t node, const Overflow& full, const Cut& cut) const {
  PageHold page = bfgetclr(node);
  if (!page) return -1;
  const Bytes area = page.bytes().subspan(kUsedBytes);
  const int start = itpack(layout_, cut.first, area, 0);
  const ConstBytes rest = full.area.subspan(static_cast<std::size_t>(cut.first_end));
  std::memcpy(area.data() + start, rest.data(), rest.size());
  page.set_frame(start + static_cast<int>(rest.size()) + kUsedBytes, full.frame.node_type,
                 full.frame.level);
  return 0;
}

// The left part goes to a new node, whose last item becomes the separator in the parent.
int Insertion::split(const Overflow& full, const Cut& cut) const {
  Item separator = cut.separator;
  separator.recptr = allocrec(FreeList::kNodes);
  if (separator.recptr < 0) return -1;
  if (put_left(separator.recptr, full, cut) != 0 || btinsert(separator, full.depth - 1) != 0) {
    give_node_back(separator.recptr);
    return -1;
  }
  return put_right(full.node, full, cut);
}

// Both parts of the root go to new nodes, and it keeps an item for each.
int Insertion::split_root(const Overflow& full, const Cut& cut) const {
  Item left = cut.separator;
  Item right = cut.separator;
  left.flag = right.flag = 0;
  itpress(layout_, nullptr, left, Press::kFirst);
  itpress(layout_, &left, right, Press::kRepeat);
  if (left.totln + right.totln > limit_ || full.frame.level >= kFreeLevel) {
    return failed(kCorrupted);
  }
  left.recptr = allocrec(FreeList::kNodes);
  if (left.recptr < 0) return -1;
  right.recptr = allocrec(FreeList::kNodes);
  if (right.recptr < 0) {
    give_node_back(left.recptr);
    return -1;
  }
  if (put_left(left.recptr, full, cut) != 0 || put_right(right.recptr, full, cut) != 0) return -1;
  PageHold page = bfgetclr(full.node);
  if (!page) return -1;
  const Bytes area = page.bytes().subspan(kUsedBytes);
  const int length = itpack(layout_, right, area, itpack(layout_, left, area, 0));
  page.set_frame(length + kUsedBytes, full.frame.node_type,
                 static_cast<Byte>(full.frame.level + 1));
  return 0;
}

// An equal item may end the leaf before the one that the search came to.
int check_item_before(Cursor& cursor, Item& item, const keydescr& k) {
  if (cursor.bt.leaf().offset != 0 || cursor.bt.ends != kOnItem) return 0;
  if (btmove(cursor, k, Direction::kPrevious) != 0) return -1;
  if (cursor.bt.ends == kOnItem && itcompare(cursor.treeitem, item, KeyOrder{k}) == 0) {
    const ItemLayout layout{k};
    if (!layout.dups || cursor.treeitem.dupnm >= layout.greatest_dupnm()) return failed(kDuplicate);
    cursor.bt.state |= kSameKeyNearby;
    item.dupnm = std::max(item.dupnm, cursor.treeitem.dupnm + 1);
  }
  return btmove(cursor, k, Direction::kNext);
}

// Inserts an item right behind one with the same key, by moving the bytes behind that. False, with
// nothing changed, where other items have to be stored anew or the leaf has no room.
bool insert_repeat(const Cursor& cursor, Item& item, const keydescr& k) {
  const ItemLayout layout{k};
  if (!layout.repeats_stand_alone() || !btbehindequal(cursor)) return false;
  const PathLevel& at = cursor.bt.leaf();
  const int size = layout.repeat_size();
  const KeepError keep;
  TreeNode leaf{at.node};
  if (!leaf || leaf.length() != at.length) return false;
  if (at.length + size > static_cast<int>(leaf.room().size())) return false;
  Byte* const place = leaf.to_change().data() + at.offset;
  std::memmove(place + size, place, static_cast<std::size_t>(at.length - at.offset));
  const bool next_repeats = repeats_at(leaf.room(), at.offset);
  item.flag = next_repeats ? kRepeatsPrevious | kNextRepeats : kRepeatsPrevious;
  item.totln = size;
  itpack(layout, item, leaf.room(), at.offset);
  leaf.changed(at.length + size);
  return true;
}

// Inserts at the path's place.
int insert_here(const Cursor& cursor, Item& item, const keydescr& k) {
  if (insert_repeat(cursor, item, k)) return 0;
  // The split of a root makes the tree one level deeper.
  if (cursor.bt.depth > kMaxTreeLevels - 2) return failed(kTreeTooDeep);
  return Insertion{cursor, k}.btinsert(item, cursor.bt.depth);
}

int add_item(Cursor& cursor, Item& item, const keydescr& k, const PathAhead* ahead) {
  cursor.bt.clear(kSameKeyNearby);
  if (right_edges.append(item, k)) return 0;
  if (btsearch(cursor, item, k, 0, Search::kInsert, ahead) != 0) return -1;
  if (check_item_before(cursor, item, k) != 0) return -1;
  return insert_here(cursor, item, k);
}

int return_item(Cursor& cursor, Item item, const keydescr& k) {
  return btsearch(cursor, item, k, 0, Search::kReturn) != 0 ? -1 : insert_here(cursor, item, k);
}

}  // namespace

int btadditem(Cursor& cursor, Item& item, const keydescr& k, const PathAhead* ahead) {
  const int result = k.nparts == 0 ? 0 : add_item(cursor, item, k, ahead);
  btchanged(cursor);
  return result;
}

int btreturnitem(Cursor& cursor, const Item& item, const keydescr& k) {
  const int result = k.nparts == 0 ? 0 : return_item(cursor, item, k);
  btchanged(cursor);
  return result;
}

}  // namespace isam
