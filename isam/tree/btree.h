// btree: ordered items in the nodes of one index, and the position in them.
//
// Leaf items point to data records, the items of upper nodes to child nodes: each upper item has
// the last key of its child's subtree, and a node's last item covers all that lies to its right,
// whatever its key. A position is a path of items from the root to a leaf.
//
// Needs   the current file with its dictionary loaded and the semaphore held; a legal key
//         description. A path held in a cursor's `bt` (depth from 0) belongs to the tree as it is
//         now: whoever lets the tree change sets the depth to -1.
// Keeps   T1 the items of a node are in key order; duplicate numbers ascend within equal keys
//         T2 the root keeps its node number for the life of the index
//         T3 only an empty root has no items: a node that becomes empty is freed
//         T4 a change that fails for want of a node, of room or of soundness changes nothing
// Gives   in the caller's cursor a position (bt) and the item read last (treeitem)
// Never   follows a damaged tree below level 19, for ever, or outside a page (105); holds more
//         than one page while it asks for another
//
//   btsearch(cursor, item, k, 0, Search::kRead);
//   while (cursor.bt.depth >= 0 && (cursor.bt.ends & kAfterLast) == 0) {
//     use(cursor.treeitem);
//     btmove(cursor, k, Direction::kNext);
//   }
#pragma once

#include <cstdint>

#include "isam.h"
#include "isam/tree/items.h"

namespace isam {

class PathAhead;

enum class Edge { kFirst, kLast };
// The order counts: reads first.
enum class Search {
  kRead,    // the first item not below the one given
  kPast,    // the first item of a greater key
  kInsert,  // where it is to be inserted, behind its equals
  kReturn,  // where it stood, by its duplicate number
};
enum class Direction { kNext, kPrevious };

// These answer 0, or -1 with iserrno and depth -1, unless said otherwise. Positions and searches
// are for keys with parts; without parts a key has no tree, and items are neither added nor
// removed.

// Positions on the first item, or behind the last one, so that a move back comes to it.
int btposition(Cursor& cursor, const keydescr& k, Edge edge);

// Positions by `item` over at most `len` bytes of its key (below 1: the whole key). Between equal
// keys kRead and kReturn decide by the duplicate number; kPast passes all of them. To insert, the
// item's duplicate number is raised above that of its equals, and kSameKeyNearby set when one of
// them was met; 100 when an equal key is not allowed or no duplicate number is left. After a search
// to insert or to return an item, treeitem is none in particular. `ahead`, here and below, is a way
// found before that spares the upper nodes, or null.
int btsearch(Cursor& cursor, Item& item, const keydescr& k, int len, Search mode,
             const PathAhead* ahead = nullptr);

// Where a walk to the item before the path's may begin, right after a search for `sought` over its
// whole key. It refers to the key of `sought`.
[[nodiscard]] WalkStart btwalkstart(const Cursor& cursor, const Item& sought);

// Whether that search has come to a place right behind an item with the bytes of the key sought.
[[nodiscard]] bool btbehindequal(const Cursor& cursor);

// Moves to the neighbour item; past the last one in that direction, and without a path, `ends` says
// so. Without parts the current item's record number is moved, to one beyond the file's at most.
int btmove(Cursor& cursor, const keydescr& k, Direction direction);

// Makes record `number` the item read last, in the order of record numbers.
void btnumber(Cursor& cursor, std::int32_t number);

// Sets the flag kSameKeyNearby when the neighbour has the key of the item on the path, else clears
// it. The position stays.
int btdups(Cursor& cursor, const keydescr& k, Direction direction);

// Finds the current item again. 0 also when it is gone: then the position is on the item that
// follows its place, and the flags kCurrentRead and kCurrentDeleted are cleared. -1 with iserrno as
// it was and the path kept: without a current item, or when `again` asks for that very item and it
// is gone or its record was deleted.
int btcurrent(Cursor& cursor, const keydescr& k, bool again);

// Inserts an item (key, recptr; dupnm is raised as needed). 0, or -1 with iserrno: 100 when an
// equal key is not allowed or no duplicate number is left, 26062 when the tree is too deep, 105
// also for an item too large for the node size. Leaves depth -1.
int btadditem(Cursor& cursor, Item& item, const keydescr& k, const PathAhead* ahead = nullptr);

// Inserts an item that was removed with this duplicate number where it stood among its equals. 0,
// or -1 with iserrno. Leaves depth -1.
int btreturnitem(Cursor& cursor, const Item& item, const keydescr& k);

// Removes the item with this key and recptr, not looking below the dupnm given, and leaves its
// duplicate number in `item`. 0, or -1 with iserrno (111 when there is none). Leaves depth -1.
int btdelitem(Cursor& cursor, Item& item, const keydescr& k, const PathAhead* ahead = nullptr);

// A tree was changed, or is about to be: neither the path nor what is remembered of the item read
// last is good for anything any more, also when the change is taken back.
void btchanged(Cursor& cursor);

// Frees every node of an index, children first: it is the nodes that are recovered, the index is
// gone. What is not a sound tree node is left alone. 0, or -1 with iserrno when something was left.
int btrecover(std::int32_t root, const keydescr& k);

}  // namespace isam
