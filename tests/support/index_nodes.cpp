#include "tests/support/index_nodes.h"

#include <utility>

namespace testing_support {

Byte* IndexNodes::at(std::int32_t number) {
  const std::size_t end = static_cast<std::size_t>(number) * size();
  if (image_.size() < end) image_.resize(end);
  return image_.data() + end - size();
}

std::int32_t IndexNodes::append() {
  at(++highest_);
  return highest_;
}

std::int32_t IndexNodes::take() {
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

std::vector<std::int32_t> IndexNodes::leave_pool() { return std::exchange(pool_, {}); }

void IndexNodes::set_frame(std::int32_t number, int used, int kind, int level) {
  Byte* node = at(number);
  put2(node, used);
  node[stored_size() - 2] = static_cast<Byte>(kind);
  node[stored_size() - 1] = static_cast<Byte>(level);
}

const Image& IndexNodes::file(int nodes_behind) {
  image_.resize((static_cast<std::size_t>(highest_) + static_cast<std::size_t>(nodes_behind)) *
                size());
  return image_;
}

}  // namespace testing_support
