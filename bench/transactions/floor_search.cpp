#include "bench/transactions/floor_search.h"

#include <cstdint>
#include <memory>

#include "bench/stores/floor_index.h"

namespace bench {

std::function<std::size_t(int account)> make_floor_search(int accounts) {
  const auto index = std::make_shared<FloorIndex>();
  return [=](int account) -> std::size_t {
    const auto number = static_cast<std::uint32_t>(account);
    return index->slot_at(index->find(number, static_cast<std::uint32_t>(accounts)));
  };
}

}  // namespace bench
