// descent: the place of one item in the nodes of a search path, one node after the other.
//
// Gives   per node the first item that is greater than the one sought, or the node's last; on the
//         way it refuses to insert a key that an index without duplicates has already. To kRead
//         and kReturn an item of the same key is greater, unless its duplicate number is less
// Never   puts more keys together than the search needs: in a compressed node an item that takes
//         more bytes from its predecessor than this shares with the item sought is passed over
#pragma once

#include "isam/tree/btree.h"
#include "isam/tree/treenode.h"
#include "isam/tree/uppernodes.h"

namespace isam {

class Descent {
 public:
  // Both items must outlive the descent. The duplicate number of `sought` is raised in the mode
  // kInsert; `found` is working space until take() is called.
  Descent(Item& sought, Item& found, const keydescr& k, int len, Search mode);

  // Sets the offsets of the node's `level` to the item chosen; the node has items. False with
  // iserrno: 105 when these cannot be read, 100 when an equal item forbids the insertion.
  [[nodiscard]] bool choose(const TreeNode& node, PathLevel& level);
  // The same for an upper node that is kept: its child in the place of the item chosen, or -1.
  [[nodiscard]] std::int32_t choose(const UpperNode& node, PathLevel& level);
  [[nodiscard]] const ItemLayout& layout() const { return layout_; }
  // Whether the item that it comes to is wanted, not just its place.
  [[nodiscard]] bool reads() const { return mode_ < Search::kInsert; }

  // Of the node chosen from last: whether the item chosen is greater than the one sought, and, of
  // an insertion, whether it is a leaf in which an item of the same key was met.
  [[nodiscard]] bool on_greater() const { return greater_; }
  [[nodiscard]] bool met_equal() const { return met_equal_; }
  // ... and the offset of an item passed (0: none is known) that is compressed against bytes of the
  // key sought: a walk may begin there with this key, without what lies before.
  [[nodiscard]] int passed() const { return from_; }
  // ... and whether the item sought belongs right behind one that has the same bytes.
  [[nodiscard]] bool behind_equal() const { return behind_equal_; }

  // Where on_greater() holds of a leaf: leaves the item chosen unpacked in `found`. False with 105
  // when its bytes make no item.
  [[nodiscard]] bool take(const TreeNode& node, const PathLevel& leaf);

 private:
  // Items of one size, and where a key of each begins, as far as KeyOrder::leading() reads it.
  struct FixedItems {
    const Byte* items;
    int count;
    const Byte* heads;
    std::size_t distance;  // between two of these
  };
  bool choose_fixed(ConstBytes area, PathLevel& level);
  int choose_fixed(const FixedItems& all);
  [[nodiscard]] std::size_t count_lesser(const FixedItems& all, std::size_t count) const;
  bool choose_reading(ConstBytes area, PathLevel& level);
  bool choose_skipping(ConstBytes area, PathLevel& level);
  [[nodiscard]] int compare_bytes(const Byte* key, int keyln, int& match) const;
  int break_tie(std::int32_t dupnm);
  int compare_fixed(const Byte* stored);
  // The key of an upper node's last item carries no meaning; but an insertion among equals takes a
  // duplicate number above that item's too, where it repeats the key.
  [[nodiscard]] bool covers_all(bool last) const { return last && !leaf_ && !numbers_; }
  bool settle_on(PathLevel& level, int offset, int next, int result);

  Item& sought_;
  Item& found_;
  ItemLayout layout_;
  KeyOrder order_;
  int len_;
  Search mode_;
  bool numbers_;  // an item of an index with duplicates is to be inserted
  bool skips_;    // keys are compressed, decided by their first differing byte and compared whole
  bool leads_;    // keys are compared whole, and have KeyOrder::leading()
  int from_ = 0;
  bool leaf_ = false;
  bool greater_ = false;
  bool met_equal_ = false;
  bool behind_equal_ = false;
  bool refused_ = false;  // there is an equal item that forbids this one
};

}  // namespace isam
