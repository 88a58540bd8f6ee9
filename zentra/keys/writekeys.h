// writekeys: other descriptions of indexes in the place of those of the current pair.
//
// Needs   the current index to be a copy, its dictionary read and not yet checked; descriptions
//         that suit the pair
// Gives   a new chain of descriptions, each with an empty tree, in nodes behind all others. Nothing
//         refers to the nodes of before any more
#pragma once

#include <vector>

#include "isam.h"

namespace zentra {

// 0, or -1 with iserrno.
[[nodiscard]] int write_keys(const std::vector<keydescr>& keys);

// Gives the nodes of the descriptions that are there the marks of such nodes. Needs a chain that a
// check has followed to its end.
void mark_key_nodes();

}  // namespace zentra
