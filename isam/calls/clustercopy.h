// clustercopy: the records of one open added to another, in the order of an index.
//
// Needs   an exclusive open to read from, and one of an empty pair to write to
// Keeps   each record is copied once: 105 when the index names one twice, and when it has fewer or
//         more than the dictionary tells of
#pragma once

#include <cstdint>

#include "isam.h"

namespace isam {

enum class AmongEquals {
  kAsIndexed,  // in the order in which the index has them
  kAscending,  // by their record numbers, which is what a recovery can repeat
};

struct CopyOrder {
  keydescr key;
  AmongEquals equals;
};

// Copies the `records` records of `from`, none longer than `longest`: 0, or -1 with iserrno.
int copy_records(int from, int to, const CopyOrder& order, std::int32_t records, int longest);

}  // namespace isam
