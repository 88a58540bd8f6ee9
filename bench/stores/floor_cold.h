// floor_cold: what reading a file cannot do without that the system has to get from the disk.
//
// The records stand in slots, in the order of the first key; the leaves of both keys are nodes of
// 1 KiB in two more files. A read by key copies one leaf, which it knows without a search, and the
// record; a scan copies leaf after leaf and its records in one go. All of it comes out of mappings,
// with the system asked for what comes next as the library does it (common/filemap,
// isam/records/askahead). What is left out: upper nodes, the pool, locks, positions and checks.
#pragma once

#include <memory>

#include "bench/stores/store.h"

namespace bench {

std::unique_ptr<Store> make_floor_cold();

}  // namespace bench
