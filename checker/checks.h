// checks: the passes over one file, in the order in which ckfile runs them, and what a repair makes
// anew, in its order.
//
// All work on the current file and on its Check, and tell what they find by it.
#pragma once

#include <cstdint>

#include "checker/check.h"

namespace checker {

// Validates the dictionary fields that everything else depends on, sizes the maps, and marks the
// nodes of the dictionary, the audit trail's name and the key descriptions. False, and said: check
// no further.
[[nodiscard]] bool ckdict(Check& check);

// Finds which data records are present.
void ckdata(Check& check);

// Tests the storage pages that records use, and counts them as nodes in use.
void ckrpage(Check& check);

// Checks every index; asks about the bad ones. False: a key description is invalid and the rest
// of the file cannot be judged.
[[nodiscard]] bool ckindex(Check& check);

// Check the free lists of data records, storage pages and index nodes; ask about rebuilding. Index
// nodes come last, when all other uses of nodes are marked.
void ckdfree(Check& check);
void ckrfree(Check& check);
void ckifree(Check& check);

// Whether a list of storage pages holds one that no record uses any more, which the rebuild of the
// node list would free.
[[nodiscard]] bool unused_pages_are_listed(Check& check);

// How far past the end of the real index file a node in use may lie: the dictionary may tell of
// nodes that a killed process had not written yet, but hardly of more than this. What lies farther
// behind is given up.
inline constexpr std::int32_t kKeptPastEnd = 65536;

// The highest number of a node that may stay in use.
[[nodiscard]] std::int32_t last_node_to_keep(const Check& check);

// Whether a node is, or was until a repair gave it up, a storage page with bytes of variable parts
// in it. Not one that cannot be read.
[[nodiscard]] bool holds_parts(std::int32_t node);

// Whether a rebuild of the node list would give up storage pages with bytes in them, which no sound
// record names.
[[nodiscard]] bool pages_are_given_up(Check& check);

// With variable length: unused storage pages lose their kind, or they would not be handed out.
// Their bytes stay until that happens.
void unmark_unused_pages(Check& check);

// Gives the nodes of the list of free nodes the used count, kind and level that such nodes have,
// where they lack them. Whether nodes can be taken from the list then. Needs a list that ckifree()
// has followed to its end.
[[nodiscard]] bool mark_node_list(Check& check);

// Rebuild the free lists from what was found in use. makdfree() takes nodes from the node list:
// where node_list_is_declined() it changes nothing and tells 105.
void makifree(Check& check);
void makrfree(Check& check);
void makdfree(Check& check);

// For a repair in place, before its first change: gathers and sorts the keys of every index that
// will be made anew, so that nothing that makindex does later needs room for them. False, and said,
// when that failed.
[[nodiscard]] bool prepare_indexes(Check& check);

// Remove the description of index n, or empty the index and fill it from the data records.
// makindex() takes nodes as makdfree() does.
void delindex(Check& check, int n);
void makindex(Check& check, int n);

}  // namespace checker
