// unfinished: the node that tells of a bulk load that is not done.
//
// A bulk load writes storage pages behind the last node in use, where they look like pages that a
// killed process has left in use. So the first node that it writes is an empty free one with words
// in place of its entries. It becomes an ordinary one in the load's last step: where a node behind
// the last one in use has the words, nothing from there on is in use.
//
// Needs   the current file
#pragma once

#include <cstdint>

#include "isam/base/format.h"

namespace isam {

inline constexpr Byte kUnfinished[] = {'u', 'n', 'f', 'i', 'n', 'i', 's', 'h',
                                       'e', 'd', ' ', 'l', 'o', 'a', 'd', 0};

// Where the words stand in a node behind the last one in use, the index file is cut before it:
// whether it was, 1 or 0; -1 with iserrno.
[[nodiscard]] int drop_unfinished(std::int32_t node);

}  // namespace isam
