// treewalk: the indexes of the current pair, as far as they can be followed.
#pragma once

#include <optional>
#include <vector>

#include "checker/listener.h"
#include "checker/tree_check.h"
#include "isam.h"

namespace zentra {

// Descriptions that can be believed, the first of them that of index 1.
[[nodiscard]] std::vector<keydescr> indexes_of_pair();

// Walks the tree of index n, around what cannot be read: what it found; nothing when the pair has
// no sizes.
std::optional<checker::TreeFindings> walk_tree(checker::Listener& listener, int n,
                                               const keydescr& k);

}  // namespace zentra
