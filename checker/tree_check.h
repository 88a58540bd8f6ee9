// tree_check: the walk over the B-tree of one index.
//
// Tests   that node numbers are in range and met once, that nodes have the form of tree nodes, that
//         each item of a leaf points to a record in use which no other points to, that items are in
//         key order within and between nodes
// Needs   idxmap2 and datmap2 cleared; datmap filled by the data check
// Gives   the counts below; idxmap2 and datmap2 marked; every node to a listener that wants them
// Never   holds a page while it descends; reads a node below level 19, the root's being 0
#pragma once

#include <array>
#include <cstdint>

#include "checker/check.h"
#include "checker/progress.h"
#include "isam.h"
#include "isam/keys/keys.h"
#include "isam/tree/items.h"

namespace checker {

// Two names that are nearly one: badindx counts pointers, badindex tells of nodes.
struct TreeFindings {
  std::int32_t cntindx = 0;  // nodes met, each once
  std::int32_t badindx = 0;  // node pointers out of range
  std::int32_t dupindx = 0;  // node pointers met a second time
  std::int32_t baddata = 0;  // leaf pointers out of range or to a record not in use
  std::int32_t dupdata = 0;  // records pointed to more than once
  bool badorder = false;     // two items are out of order
  bool badindex = false;     // a node is malformed, too deep, or could not be read
  int maxlevel = 0;          // deepest level that an item points to, the root being 0
};

class TreeCheck {
 public:
  // The tree of index `n`.
  TreeCheck(Check& check, int n, const keydescr& k)
      : check_(check),
        number_(n),
        key_(k),
        order_(k),
        layout_(k),
        last_record_(static_cast<std::uint32_t>(check.datlast)),
        lists_(check.listener.wants_trees()),
        tells_(check.listener.wants_leaves()),
        progress_("Checking an index", check.datmap.cntmap()) {}

  [[nodiscard]] TreeFindings run();

 private:
  using Item = isam::Item;

  // Checks a node and all below it. In key order the item `prev` comes before all of their items
  // (null on the leftmost path), and none of these may be greater than the item `bound` (null on
  // the rightmost path).
  void cktree(std::int32_t node, const Item* prev, const Item* bound);
  // Calls `visit` for one item of a node after the other, with the key of the item before it in the
  // node (kNoKey for the first), from which its leading bytes were taken, and whether it is the
  // last; at_ is its place. The items are unpacked into items[0] and items[1] by turns, so that the
  // one before can still be read. False, with badindex set, when the rest of the node is malformed.
  template <typename Visit>
  bool visit_items(std::int32_t node, isam::ConstBytes area, Item (&items)[2], Visit visit);
  // Check a node's items. Each returns the item to be compared with `bound`, which stands in
  // `items`: a leaf's last one; in an upper node the one before the last, for the last one's key
  // carries no meaning. `prev` when the node has no such item, null when it is malformed.
  const Item* check_upper(std::int32_t node, isam::ConstBytes area, const Item* prev,
                          const Item* bound, Item (&items)[2]);
  const Item* check_leaf(std::int32_t node, isam::ConstBytes area, const Item* prev,
                         Item (&items)[2]);
  // Sets badorder when `prev` is greater than `item`, which follows it. The keys of the two are
  // known to have their first `equal` bytes in common. How the keys compare.
  int check_pair(const Item& prev, const Item& item, int equal);
  [[nodiscard]] int equal_bytes(const Item& item) const;
  // Counts a leaf's pointer that is out of range, to a record not in use, or a second one to it:
  // false then.
  bool check_record(const Item& item);
  void tell(Code code, const Item* item, const Item* before = nullptr) const;
  void compare_level(std::int32_t node, int level, int used);
  void bad_format(std::int32_t node);
  void unreadable(std::int32_t node);

  Check& check_;
  int number_;  // of the index
  const keydescr& key_;
  isam::KeyOrder order_;
  isam::ItemLayout layout_;
  std::uint32_t last_record_;  // the highest record number to check
  bool lists_;                 // the listener wants the nodes and items,
  bool tells_;                 // ... those of leaves
  Progress progress_;
  std::int64_t items_ = 0;  // leaf items met
  TreeFindings found_;
  int level_ = 0;                                   // of the node under way, counted from the root
  std::array<int, isam::kMaxTreeLevels> levels_{};  // as the nodes on the way to it tell them
  // For details: the item that the walk stands at, or came down from.
  struct Place {
    std::int32_t node = 0;
    int slot = -1;
  } at_;
};

}  // namespace checker
