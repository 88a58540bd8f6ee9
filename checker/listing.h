// listing: what -l shows of every tree, and the heading of every index.
#pragma once

#include <cstdint>

#include "isam.h"
#include "isam/items.h"

namespace checker {

// "Index 2 = duplicates  (12,4,2) ": number, kind, and start, length and type of each part.
void prtindex(int n, const keydescr& k);
// One line with an item's fields and its key, part by part.
void pritem(const isam::Item& item, const keydescr& k);
// The heading of a node's items.
void list_node(int level, std::int32_t node, int used);
// The return to a node from a subtree.
void list_level(int level);
// A node of a tree could not be read (nothing with -s, whose new index lacks its trees).
void report_unreadable_tree_node();

}  // namespace checker
