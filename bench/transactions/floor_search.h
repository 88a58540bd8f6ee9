// floor_search: a search by the first key as the floors of bench/stores make it, for a file of
// accounts that were added in their order.
#pragma once

#include <cstddef>
#include <functional>

namespace bench {

// Gives the place of an account by its number, from 0 on.
[[nodiscard]] std::function<std::size_t(int account)> make_floor_search(int accounts);

}  // namespace bench
