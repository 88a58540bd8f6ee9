// pathahead: the way of a search through the upper nodes, found before the search is made. A change
// of several indexes finds its ways in all of them first, and has the processor fetch the memory of
// their leaves: it comes while the change goes on, instead of being waited for leaf by leaf.
//
// Gives   PathAhead
// Keeps   P1 a way is taken by a search for the item that it was found for, as long as no upper
//            node has changed; any other search finds its own
// Never   reads a page or reports an error: what cannot be found without is left to the search
#pragma once

#include <array>
#include <cstdint>

#include "isam/tree/btree.h"

namespace isam {

// Valid within the call that finds it.
class PathAhead {
 public:
  // Whether a change of index `k` is likely to search. (Where its place is known from another
  // search or insertion it does not.)
  [[nodiscard]] static bool is_needed(const keydescr& k, Search mode);
  // Finds the way of btsearch() for `item`, over its whole key, which has parts, in the current
  // file: once, and not at all where that takes more than a look into the pool.
  void find(const Item& item, const keydescr& k, Search mode);

  // Puts a path on the way: the leaf to go on from, and `item` with its duplicate number raised as
  // the upper nodes have done. 0 when this is not its way.
  [[nodiscard]] std::int32_t take(Item& item, const keydescr& k, Search mode, Position& bt) const;

  // An upper node changes, of whatever index.
  static void upper_changes() { ++changes_; }

 private:
  static constexpr int kMostUpper = 6;  // levels; deeper trees are searched without a way
  static std::uint64_t changes_;

  std::int32_t root_ = 0;  // of the index; 0: no way is known
  // What follows is set with it.
  std::int32_t leaf_;
  int depth_;  // of the leaf
  Search mode_;
  std::int32_t given_dupnm_;
  std::int32_t raised_dupnm_;
  std::uint64_t changes_before_;
  std::array<PathLevel, kMostUpper> path_;
  std::array<Byte, MAXKEYLEN> key_;
};

}  // namespace isam
