// checks: the passes over one file, in the order in which ckfile runs them.
//
// All work on the current file and on its Check, and tell what they find by it.
#pragma once

#include <cstdint>

#include "checker/check.h"

namespace checker {

// Validates the dictionary fields that everything else depends on, sizes the maps, and marks the
// nodes of the dictionary, the audit record and the key descriptions. False: check no further.
[[nodiscard]] bool ckdict(Check& check);

// Finds which data records are present.
void ckdata(Check& check);

// Tests the storage pages that records use, and counts them as nodes in use.
void ckrpage(Check& check);

// Checks every index; asks about the bad ones. False: a key description is invalid and the rest
// of the file cannot be judged.
[[nodiscard]] bool ckindex(Check& check);

// Check the free lists of data records, storage pages and index nodes; ask about rebuilding.
void ckdfree(Check& check);
void ckrfree(Check& check);
void ckifree(Check& check);

// Whether a list of storage pages holds one that no record uses any more, which the rebuild of the
// node list would free.
[[nodiscard]] bool unused_pages_are_listed(Check& check);

// Numbers past the end of the real index file that a part of it may keep: it may have grown by more
// than was written of it, but hardly by more than this. Those beyond are given up.
inline constexpr std::int32_t kKeptPastEnd = 65536;

// The highest node number that may be kept.
[[nodiscard]] std::int32_t last_node_to_keep(const Check& check);

// Whether a node is a storage page with bytes of variable parts in it.
[[nodiscard]] bool holds_parts(std::int32_t node);

// Whether a rebuild of the node list would give up storage pages with bytes in them, which no sound
// record names.
[[nodiscard]] bool pages_are_given_up(Check& check);

// With variable length: unused storage pages lose their kind, or they would not be handed out.
// Their bytes stay until that happens.
void unmark_unused_pages(Check& check);

// Gives the nodes of the list of free nodes the marks of its kind, where they lack them; whether
// the list can be drawn from then.
[[nodiscard]] bool mark_node_list(Check& check);

// Rebuild the free lists from what was found in use. When the operator declined to have a faulty
// node list rebuilt, nothing is done that takes nodes from it: 105.
void makifree(Check& check);
void makrfree(Check& check);
void makdfree(Check& check);

// Gathers and sorts the keys of every index that will be made anew, so that nothing that makindex
// does later needs room for them. False, and said, when that failed.
[[nodiscard]] bool prepare_indexes(Check& check);

// Remove the description of index n, or empty the index and fill it from the data records.
void delindex(Check& check, int n);
void makindex(Check& check, int n);

}  // namespace checker
