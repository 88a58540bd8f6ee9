// numberset: a set of record numbers, for the locks that a process holds.
//
// Never   allocates while it holds no more numbers than it once held
#pragma once

#include <algorithm>
#include <cstdint>
#include <new>
#include <vector>

namespace isam {

class NumberSet {
 public:
  [[nodiscard]] bool empty() const { return numbers_.empty(); }
  [[nodiscard]] bool contains(std::int32_t number) const {
    return !numbers_.empty() && std::ranges::binary_search(numbers_, number);
  }
  // Whether the number is now in the set: false without memory.
  bool insert(std::int32_t number) {
    const auto at = std::ranges::lower_bound(numbers_, number);
    if (at != numbers_.end() && *at == number) return true;
    try {
      numbers_.insert(at, number);
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }
  // Whether the number was in the set.
  bool erase(std::int32_t number) {
    const auto at = std::ranges::lower_bound(numbers_, number);
    if (at == numbers_.end() || *at != number) return false;
    numbers_.erase(at);
    return true;
  }
  void clear() { numbers_.clear(); }
  [[nodiscard]] const std::vector<std::int32_t>& numbers() const { return numbers_; }

 private:
  std::vector<std::int32_t> numbers_;  // ascending
};

}  // namespace isam
