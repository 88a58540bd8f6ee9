// floor_exclusive: what an exclusive open cannot do without when it reads and changes records.
//
// Nodes of 1 KiB stand in arrays, one a level, found by their numbers: there is no pool, and no
// node is split. To find a record, a node of each level is searched by halves, and the record
// copied out of a mapping of the file. A change also goes over the items of a node of each level of
// the second key, one after the other to any place, for what an item leaves out stands in those
// before it. It moves the rest of each leaf that it changes, and writes the record: by itself, or
// with its neighbours in one page of the system while records are added one behind the other. In
// the end the pages of the system with changed leaves are written. A scan takes the numbers of
// records from the leaves and copies the records. A bulk load writes records and items 16 KiB at a
// time, and sorts the second keys.
#pragma once

#include <memory>

#include "bench/stores/store.h"

namespace bench {

std::unique_ptr<Store> make_floor_exclusive();

}  // namespace bench
