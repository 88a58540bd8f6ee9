// rightedge: the last leaf of an index whose keys are added in their order: what is greater than
// its last key goes behind it, and need not be searched for.
//
// Gives   RightEdges: append(), note(), grows(); right_edges, those of all files
// Keeps   E1 a leaf is known as the last one while the pool has it as it was (PageStamp): whatever
//            puts another leaf behind it, or takes it out of the tree, changes it
// Never   adds to an index with duplicates, where upper nodes too tell the next duplicate number;
//         splits a node
#pragma once

#include <array>
#include <cstdint>

#include "isam/pool/buffers.h"
#include "isam/tree/items.h"
#include "isam/tree/treenode.h"

namespace isam {

class RightEdges {
 public:
  // Adds an item with a key above all of an index of the current file, where its last leaf is known
  // and has room: whether it has. The leaf is what a search and an insertion would have made of it.
  [[nodiscard]] bool append(Item& item, const keydescr& k);
  // Whether the item added last to an index went behind its last key, as the next one may.
  [[nodiscard]] bool grows(const keydescr& k) { return of(k).root == k.rootnode && of(k).grows; }
  // The last item of the last leaf of the current file's index `k` is this one, as it is stored.
  void note(const keydescr& k, const PageHold& leaf, const Item& last);

 private:
  struct Edge {
    std::int32_t root = 0;
    std::int32_t leaf = 0;
    PageStamp stamp;
    Item last;
    int keylen = 0;  // of the index
    bool grows = false;
  };
  Edge& of(const keydescr& k) { return edges_[static_cast<std::size_t>(k.rootnode) % kEdges]; }

  static constexpr std::size_t kEdges = 8;
  std::array<Edge, kEdges> edges_;
};
extern RightEdges right_edges;

}  // namespace isam
