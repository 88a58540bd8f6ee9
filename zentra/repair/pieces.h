// pieces: which pieces of variable parts belong to records that can be read.
//
// Needs   the current pair; checker::ckdata() has run
#pragma once

#include <cstdint>
#include <set>

#include "checker/check.h"
#include "zentra/repair/badrecords.h"

namespace zentra {

// Of these pieces, by record pointer, those of records that are none of the bad ones.
[[nodiscard]] std::set<std::int32_t> pieces_of_others(const checker::Check& check,
                                                      const BadRecords& bad,
                                                      const std::set<std::int32_t>& pieces);

}  // namespace zentra
