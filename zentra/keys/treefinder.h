// treefinder: the intact trees of an index file whose key descriptions cannot be read.
//
// Without a description nobody knows how long a tree's keys are, whether they have duplicate
// numbers and what of them is stored: that is its layout, of which all 960 are tried. A tree is
// intact under a layout when a walk from its root meets nodes of the right levels, and each present
// record once.
//
// Needs   the current pair, held still, and its dictionary
// Keeps   every walk ends, for it goes from level to level and meets no record twice; and all walks
//         together meet a node some hundred times at most, whatever the file says
// Never   changes anything, or leaves an error of the library's
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "isam/tree/items.h"

namespace zentra {

class TreeFinder {
 public:
  TreeFinder();

  // Nodes that may be roots, from the highest level down: of trees, not free, in no tree claimed.
  [[nodiscard]] std::vector<std::int32_t> possible_roots() const;
  // The layouts that the root itself allows, as descriptions without parts that count; none of a
  // node that is claimed by now.
  [[nodiscard]] std::vector<keydescr> layouts_of(std::int32_t root);
  // Walks the tree from its first leaf item to its last: whether it is intact, and `visit` has
  // agreed to each.
  using Visit = std::function<bool(const isam::Item&)>;
  [[nodiscard]] bool walk(std::int32_t root, const keydescr& layout, const Visit& visit);
  // Nothing of a tree that is intact is another's root.
  void claim(std::int32_t root, const keydescr& layout);
  [[nodiscard]] bool is_claimed(std::int32_t node) const;

  // How many records are present.
  [[nodiscard]] std::int64_t records() const { return records_; }
  // The first errno of what the system did not let anyone read, 0 for none: then neither what was
  // found nor what was not is sure.
  [[nodiscard]] int system_error() const { return system_error_; }
  // Notes the library's current error, if it is the system's, and clears it; or such an errno.
  void note_error();
  void note_error(int system_error);

 private:
  struct Walk;

  void look_at_nodes();
  void pass_over_free_nodes();
  void look_at_records();
  [[nodiscard]] int level_of(std::int32_t node) const;
  [[nodiscard]] bool is_present(std::int32_t record) const;
  [[nodiscard]] bool fits(const isam::ItemLayout& layout, isam::ConstBytes area, int level) const;
  [[nodiscard]] bool go_down(Walk& walk, std::int32_t node, int level);
  [[nodiscard]] bool go_over(Walk& walk, isam::ConstBytes area, int level);

  std::vector<isam::Byte> levels_;  // of each node, from number 0; kNone: of no tree
  std::vector<bool> present_;       // by record number
  std::int64_t records_ = 0;
  int system_error_ = 0;
  std::int64_t nodes_left_ = 0;  // that walks may still meet
};

}  // namespace zentra
