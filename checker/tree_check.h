// tree_check: the walk over the B-tree of one index.
//
// Tests   node numbers in range and used once, node formats, leaf pointers to records in use and
//         pointed to once, items in key order within and between nodes
// Needs   idxmap2 and datmap2 cleared; datmap filled by the data check
// Gives   the counts below; idxmap2 and datmap2 marked; every node to a listener that wants them
// Never   holds a page while it descends, nor goes below level 20
#pragma once

#include <cstdint>

#include "checker/check.h"
#include "checker/progress.h"
#include "isam.h"
#include "isam/keys/keys.h"
#include "isam/tree/items.h"

namespace checker {

struct TreeFindings {
  std::int32_t cntindx = 0;  // nodes counted
  std::int32_t badindx = 0;  // node pointers out of range
  std::int32_t dupindx = 0;  // node pointers met a second time
  std::int32_t baddata = 0;  // leaf pointers out of range or to a record not in use
  std::int32_t dupdata = 0;  // records pointed to more than once
  bool badorder = false;     // two items are out of order
  bool badindex = false;     // a node is malformed or could not be read
  int maxlevel = 0;          // deepest level, the root being 0
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
        progress_("Checking an index", check.datmap.cntmap()) {}

  [[nodiscard]] TreeFindings run();

 private:
  using Item = isam::Item;

  // `prev` precedes the subtree in key order (null on the leftmost path), `bound` is not to be
  // exceeded by its last item (null on the rightmost path).
  void cktree(std::int32_t node, const Item* prev, const Item* bound);
  template <typename Visit>
  bool visit_items(std::int32_t node, isam::ConstBytes area, Item (&items)[2], Visit visit);
  const Item* check_upper(std::int32_t node, isam::ConstBytes area, const Item* prev,
                          const Item* bound, Item (&items)[2]);
  const Item* check_leaf(std::int32_t node, isam::ConstBytes area, const Item* prev,
                         Item (&items)[2]);
  void check_pair(const Item& prev, const Item& item, int equal);
  void check_record(std::int32_t record);
  void bad_format(std::int32_t node);
  void unreadable(std::int32_t node);

  Check& check_;
  int number_;
  const keydescr& key_;
  isam::KeyOrder order_;
  isam::ItemLayout layout_;
  std::uint32_t last_record_;
  bool lists_;
  Progress progress_;
  std::int64_t items_ = 0;  // leaf items met
  TreeFindings found_;
  int level_ = 0;
};

}  // namespace checker
