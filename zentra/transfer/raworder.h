// raworder: the order of equal keys in the raw text of the current pair.
//
// Needs   the current pair open and locked, its dictionary read and its geometry taken
#pragma once

#include <functional>
#include <string_view>

#include "zentra/pair/pairshape.h"

namespace zentra {

// Puts the lines that tell which records do not stand in the order of their numbers among those
// with the same key, some at a time, to `put`. The number of the first index that is damaged, 0 for
// none: of that one some lines may be missing, of the next ones none are.
[[nodiscard]] int put_raw_orders(const PairShape& shape,
                                 const std::function<void(std::string_view lines)>& put);

}  // namespace zentra
