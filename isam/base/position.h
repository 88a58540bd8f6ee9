// position: one item of an index and the path that leads to it.
#pragma once

#include <array>
#include <cstdint>

#include "isam.h"
#include "isam/base/format.h"

namespace isam {

enum ItemFlag : int {
  kRepeatsPrevious = 1,  // this item repeats the previous item's key and stores no key bytes
  kNextRepeats = 2,      // the next item repeats this item's key
};

struct Item {
  int flag = 0;
  int totln = 0;            // stored length, all fields
  int keyln = 0;            // key bytes stored
  std::int32_t dupnm = 0;   // duplicate number
  std::int32_t recptr = 0;  // record number (leaf) or child node
  int leadc = 0;            // leading key bytes taken from the previous item
  int tailc = 0;            // trailing blanks left out
  Byte key[MAXKEYLEN];      // of these the first keylen of its index are set
};

// Flags of a position, of meaning to the record calls.
enum PositionFlag : std::uint16_t {
  kHasCurrent = 4,       // there is a current item
  kCurrentRead = 8,      // its record has been read
  kSameKeyNearby = 16,   // a neighbour item has the same key
  kCurrentDeleted = 32,  // its record was deleted
};

// Where a position stands beside the items.
enum Ends : std::uint16_t {
  kOnItem = 0,
  kBeforeFirst = 1,
  kAfterLast = 2,
  kEmptyTree = kBeforeFirst | kAfterLast,
};

struct PathLevel {
  std::int32_t node;
  int offset;  // of the current item in the node's item area
  int next;    // of the item behind it
  int length;  // of the item area
};

struct Position {
  std::uint16_t state = 0;  // PositionFlag
  Item item;                // the current item; of a key without parts only recptr counts
  std::array<PathLevel, kMaxTreeLevels> path{};
  int depth = -1;                // level of the leaf in the path; -1: no valid path is held
  std::uint16_t ends = kOnItem;  // Ends

  Position() = default;
  Position(const Position& other) { *this = other; }
  // Copies the levels in use only: this happens at both ends of every call.
  Position& operator=(const Position& other);

  [[nodiscard]] PathLevel& level(int of) { return path[static_cast<std::size_t>(of)]; }
  [[nodiscard]] const PathLevel& level(int of) const { return path[static_cast<std::size_t>(of)]; }
  // The lowest level of the path that is held.
  [[nodiscard]] PathLevel& leaf() { return level(depth); }
  [[nodiscard]] const PathLevel& leaf() const { return level(depth); }
  void clear(int flags) { state = static_cast<std::uint16_t>(state & ~flags); }
};

// Which stored item an item in memory is, node 0 when that is not known: a step forward from it
// needs no reading of what lies before it. Valid in the file's generation, until the tree changes.
struct ItemPlace {
  std::uint64_t generation = 0;
  std::int32_t node = 0;
  int offset = 0;
};

// Where a search ended in a leaf: a walk to that place need not begin at the leaf's start
// (btwalkstart), nor need the item before be read to see that it is equal (btbehindequal). Valid as
// an ItemPlace is.
struct LastSearch {
  std::uint64_t generation = 0;
  std::int32_t node = 0;
  int offset = 0;
  int passed = 0;  // offset of an item before; what it leaves out the key sought has; 0: none
  bool behind_equal = false;  // the item right before has the bytes of the key sought
};

// What a call works with in the trees of its open's file: a position, and the item read last on its
// path. What is remembered of these is still good in the open's next call, unless the file has been
// changed through another open since (notice_changes).
struct Cursor {
  Position bt;
  Item treeitem;    // written by the functions of isam/tree/btree only, and no argument of theirs
  ItemPlace place;  // of treeitem
  LastSearch searched;
};

}  // namespace isam
