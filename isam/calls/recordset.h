// recordset: the arrays of a call for many records.
//
// Needs   the current file
#pragma once

#include "isam/base/current.h"
#include "isam/base/errors.h"

namespace isam {

// Whether the arrays are there and have room, as far as the call can know: 0, or -1 with 102.
inline int check_set(const recordset* set, bool needs_lengths) {
  const bool there = set != nullptr && set->count > 0 && set->records != nullptr &&
                     set->numbers != nullptr && (set->lengths != nullptr || !needs_lengths);
  const auto room = static_cast<std::size_t>(filep->geometry.maxreclen);
  if (there && static_cast<std::size_t>(set->count) <= set->size / room) return 0;
  failed(kBadArgument);
  return -1;
}

inline Byte* place_of(const recordset& set, int index) {
  return reinterpret_cast<Byte*>(set.records) +
         static_cast<std::size_t>(index) * static_cast<std::size_t>(filep->geometry.maxreclen);
}

}  // namespace isam
