// indexmerge: builds an index anew from the items that it has and those of records to be added.
//
// Needs   the current file exclusively open, with nothing unwritten; IndexLoads that are sorted
// Keeps   the index as it is: the new tree lies in new nodes, its root is kept back
// Gives   within equal keys the items there are, then the new ones by their record numbers, with
//         the duplicate numbers that insertion gives
#pragma once

#include <cstdint>
#include <vector>

#include "common/sorter.h"
#include "isam/tree/indexload.h"
#include "isam/tree/newnodes.h"

namespace isam {

// Which of the records to be added the indexes refuse, one after another as if each were added by
// itself: an index refuses one as soon as the equal keys it may have are all there.
class Refusals {
 public:
  // Records are numbered from `first` on, and are `count`.
  Refusals(std::int32_t first, std::int32_t count, common::Sorter::Shape shape);

  [[nodiscard]] bool any() const { return !refused_.empty(); }
  [[nodiscard]] bool has(std::int32_t number) const {
    return !refused_.empty() && refused_[static_cast<std::size_t>(number - first_)];
  }

  // These are no records at all.
  void leave_out(std::int32_t first, std::int32_t count);

  // A group of records with the same key, of which so many have room. Its members follow.
  void begin_group(std::int32_t room) { room_.push_back(room); }
  [[nodiscard]] int add_member(std::int32_t number);
  // Whether there are groups; then decides of each of their records: 1, 0 or -1 with iserrno.
  [[nodiscard]] int decide();

 private:
  std::int32_t first_;
  std::int32_t count_;
  std::vector<bool> refused_;
  std::vector<std::int32_t> room_;  // of each group
  common::Sorter members_;
};

class IndexMerge {
 public:
  IndexMerge(const keydescr& k, IndexLoad& load, NewNodes& nodes, Refusals& refusals)
      : key_(k),
        order_(k),
        load_(load),
        refusals_(refusals),
        loader_(k, nodes),
        greatest_(ItemLayout{k}.greatest_dupnm()) {}

  // 0, or -1 with iserrno. Refused records are left out; what has no room is told the refusals.
  [[nodiscard]] int run();

 private:
  [[nodiscard]] int next_old();
  [[nodiscard]] int next_new();
  [[nodiscard]] int take_old();
  [[nodiscard]] int take_new();
  [[nodiscard]] int refuse(std::int32_t number);

  keydescr key_;
  KeyOrder order_;
  IndexLoad& load_;
  Refusals& refusals_;
  TreeLoader loader_;
  std::int32_t greatest_;  // duplicate number
  Cursor cursor_;
  std::int64_t met_ = 0;  // old items
  bool has_old_ = false;
  Item new_;
  bool has_new_ = false;
  Item last_;  // put into the tree
  bool has_last_ = false;
  std::vector<std::int32_t>
      group_;  // new records with the key of last_, as far as some may be one too many
  bool overfull_ = false;
};

// Puts the nodes of a tree without its root on `nodes`, each a new one in `seen`: 0, or -1 with
// iserrno.
[[nodiscard]] int gather_nodes(const keydescr& k, std::vector<bool>& seen,
                               std::vector<std::int32_t>& nodes);

}  // namespace isam
