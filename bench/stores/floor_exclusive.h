// floor_exclusive: what an exclusive open cannot do without when it reads and changes records.
//
// Nodes of 1 KiB stand in an array, found by their numbers; there are no upper ones. To find a
// record, its leaf is searched by halves and the record copied out of a mapping of the file. A
// change also goes over the items of a leaf of the second key, one after the other to the middle,
// moves half of each leaf that it changes, and writes the record: by itself, or with its neighbours
// in one page of the system while records are added one behind the other. In the end the pages of
// the system with changed leaves are written.
#pragma once

#include <memory>

#include "bench/stores/store.h"

namespace bench {

std::unique_ptr<Store> make_floor_exclusive();

}  // namespace bench
