// pathahead: the way of a search through the upper nodes, found before the search is made. To add
// or delete a record finds the ways in its first indexes before any of them changes; to rewrite one
// finds, index by index, those of its new and its old item. The processor fetches the memory of the
// leaves meanwhile, so that it is there when they are searched.
//
// Gives   PathAhead, WayFinder
// Keeps   P1 a way is taken by a search for the item that it was found for, as long as no upper
//            node has changed; any other search finds its own
// Never   reads a page into the pool or reports an error: a way that cannot be found so is left to
//         the search
#pragma once

#include <array>
#include <cstdint>

#include "isam/tree/btree.h"
#include "isam/tree/descent.h"

namespace isam {

// A way that a WayFinder has looked for, valid within the call.
class PathAhead {
 public:
  // Whether a change of index `k` is likely to search. (Where its place is known from another
  // search or insertion it does not.)
  [[nodiscard]] static bool is_needed(const keydescr& k, Search mode);
  // Puts a path on the way: the leaf to go on from, and `item` with its duplicate number raised as
  // the upper nodes have done. 0 when this is not its way.
  [[nodiscard]] std::int32_t take(Item& item, const keydescr& k, Search mode, Position& bt) const;

  // An upper node changes, of whatever index.
  static void upper_changes() { ++changes_; }

 private:
  friend class WayFinder;
  static constexpr int kMostUpper = 6;  // levels; deeper trees are searched without a way
  static std::uint64_t changes_;

  std::int32_t root_;  // of the index; 0: no way is known, and nothing of what follows
  std::int32_t leaf_;
  int depth_;  // of the leaf
  Search mode_;
  std::int32_t given_dupnm_;
  std::int32_t raised_dupnm_;
  std::uint64_t changes_before_;
  std::array<PathLevel, kMostUpper> path_;
  std::array<Byte, MAXKEYLEN> key_;
};

// Finds the way of btsearch() to insert or to read `item`, over its whole key, which has parts, in
// the current file. It finds nothing when an upper node on the way is not kept ready
// (isam/tree/uppernodes).
class WayFinder {
 public:
  // `way` and `k` must outlive the search.
  WayFinder(PathAhead& way, const Item& item, const keydescr& k, Search mode);
  WayFinder(const WayFinder&) = delete;
  WayFinder& operator=(const WayFinder&) = delete;
  ~WayFinder() = default;

  // Finds two ways by turns: what one needs from memory comes while the other goes on. Either may
  // be null.
  static void find(WayFinder* first, WayFinder* second);

 private:
  bool step();  // whether others follow
  void arrive();

  PathAhead& way_;
  const keydescr& k_;
  Search mode_;
  std::int32_t given_dupnm_;
  Item sought_;
  Item unused_;
  Descent descent_;
  std::int32_t number_;               // of the node that is next
  const UpperNode* upper_ = nullptr;  // that node, once it is found
  int depth_ = 0;
};

}  // namespace isam
