// writekeys: other descriptions of indexes in the place of those of the current pair.
//
// Needs   the current index to be a copy, its dictionary read and not yet checked; descriptions
// that
//         suit the pair
// Gives   a new chain of descriptions, each with an empty tree, in nodes behind all others. Nothing
//         refers to the nodes of before any more
#pragma once

#include <vector>

#include "isam.h"

namespace zentra {

// 0, or -1 with iserrno.
[[nodiscard]] int write_keys(const std::vector<keydescr>& keys);

}  // namespace zentra
