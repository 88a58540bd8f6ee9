// treeload: builds a tree bottom-up from items that come in order.
//
// Nodes are filled completely, as insertion in ascending order leaves them, and written once.
// The root is written last: until then the tree is what it was.
//
// Needs   the current file exclusively held; items ascending by key, within equal keys by
//         duplicate number
// Gives   TreeNodes: where the nodes of a tree come from and go to
//         TreeLoader: a dense tree under the given root
// Never   holds more than one page
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "isam.h"
#include "isam/tree/items.h"

namespace isam {

class TreeNodes {
 public:
  TreeNodes() = default;
  TreeNodes(const TreeNodes&) = delete;
  TreeNodes& operator=(const TreeNodes&) = delete;
  virtual ~TreeNodes() = default;

  // A node, which is written next; -1 with iserrno.
  [[nodiscard]] virtual std::int32_t take() = 0;
  // Writes a node with these items: 0, or -1 with iserrno.
  [[nodiscard]] virtual int write(std::int32_t node, Byte level, ConstBytes items) = 0;
};

// Nodes of the free list, written to the pool. Those taken are put on `taken`, in the order of
// taking.
class PoolNodes final : public TreeNodes {
 public:
  explicit PoolNodes(std::vector<std::int32_t>& taken) : taken_(taken) {}
  [[nodiscard]] std::int32_t take() override;
  [[nodiscard]] int write(std::int32_t node, Byte level, ConstBytes items) override;

 private:
  std::vector<std::int32_t>& taken_;
};

class TreeLoader {
 public:
  TreeLoader(const keydescr& k, TreeNodes& nodes) : layout_(k), nodes_(nodes) {}

  // Appends a leaf item: its key, recptr and dupnm. 0, or -1 with iserrno.
  [[nodiscard]] int add(const Item& item) { return append(0, item); }
  // Writes what is still open, the root last. 0, or -1 with iserrno.
  [[nodiscard]] int finish(std::int32_t root);

 private:
  // The open, rightmost node of one level.
  struct Level {
    int used = 0;  // bytes of items
    Item last;     // the item that ends them
    std::array<Byte, kMaxNodeSize> area;
  };

  int append(std::size_t level, const Item& item);
  // Writes a level's open node and hands its last item up.
  int close(std::size_t level);
  int write_node(std::int32_t node, std::size_t level);

  ItemLayout layout_;
  TreeNodes& nodes_;
  std::vector<std::unique_ptr<Level>> levels_;
};

}  // namespace isam
