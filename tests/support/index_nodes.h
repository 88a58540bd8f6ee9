// index_nodes: the index file of a pair being built, in memory.
#pragma once

#include <cstdint>
#include <utility>
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
  Byte* at(std::int32_t number) {
    const std::size_t end = bytes_of(number);
    if (image_.size() < end) image_.resize(end);
    return image_.data() + end - bytes_of(1);
  }
  // Adds a node with the next number.
  std::int32_t append() {
    at(++highest_);
    return highest_;
  }
  // Hands a node out.
  std::int32_t take() {
    constexpr int kWindow = 16;
    if (pool_.empty()) {
      for (int i = 0; i < (scatter_ ? kWindow : 1); ++i) pool_.push_back(append());
      for (std::size_t i = pool_.size(); i > 1; --i) {
        std::swap(pool_[i - 1], pool_[random_(static_cast<std::uint32_t>(i))]);
      }
    }
    const std::int32_t number = pool_.back();
    pool_.pop_back();
    return number;
  }
  // Nodes added by take() and not handed out; afterwards there are none.
  std::vector<std::int32_t> leave_pool() { return std::exchange(pool_, {}); }
  // How much of a node is in use, and what it is.
  void set_frame(std::int32_t number, int used, int kind, int level) {
    Byte* node = at(number);
    put2(node, used);
    node[stored_size() - 2] = static_cast<Byte>(kind);
    node[stored_size() - 1] = static_cast<Byte>(level);
  }

  [[nodiscard]] std::int32_t highest() const { return highest_; }
  // Bytes of a node but its last.
  [[nodiscard]] int stored_size() const { return node_size_ - 1; }
  // The whole file, with so many nodes behind the highest.
  [[nodiscard]] const Image& file(int nodes_behind) {
    image_.resize(bytes_of(highest_ + nodes_behind));
    return image_;
  }

 private:
  [[nodiscard]] std::size_t bytes_of(std::int32_t nodes) const {
    return static_cast<std::size_t>(nodes) * static_cast<std::size_t>(node_size_);
  }

  int node_size_;
  bool scatter_;
  Random& random_;
  Image image_;
  std::int32_t highest_ = 1;
  std::vector<std::int32_t> pool_;
};

}  // namespace testing_support
