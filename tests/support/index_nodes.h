// index_nodes: the index file of a pair being built, in memory.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/support/made_records.h"

namespace testing_support {

class IndexNodes {
 public:
  // With `scatter` numbers are handed out in no order.
  IndexNodes(int node_size, bool scatter, Random& random)
      : node_size_(node_size), scatter_(scatter), random_(random) {
    at(1);
  }

  // The bytes of a node, zero at first; valid until the next node is added.
  Byte* at(std::int32_t number);
  // Adds a node with the next number.
  std::int32_t append();
  // Hands a node out.
  std::int32_t take();
  // Nodes added by take() and not handed out; afterwards there are none.
  std::vector<std::int32_t> leave_pool();
  // How much of a node is in use, and what it is.
  void set_frame(std::int32_t number, int used, int kind, int level);

  [[nodiscard]] std::int32_t highest() const { return highest_; }
  // Bytes of a node but its last.
  [[nodiscard]] int stored_size() const { return node_size_ - 1; }
  // The whole file, with so many nodes behind the highest.
  [[nodiscard]] const Image& file(int nodes_behind);

 private:
  [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(node_size_); }

  int node_size_;
  bool scatter_;
  Random& random_;
  Image image_;
  std::int32_t highest_ = 1;
  std::vector<std::int32_t> pool_;
};

}  // namespace testing_support
