// datafile: record slots of the data file.
//
// Record k (from 1) occupies the slot at byte (k - 1) * slot size: the record, a state byte and,
// with variable length, the length of the variable part and its reference. A slot may straddle
// blocks of the pool.
//
// Needs   the current file
// Keeps   D1 what a slot's trailer says is checked before it is used: 105
// Never   holds a block while it calls the variable-length storage
#pragma once

#include <cstdint>

#include "isam/format.h"

namespace isam {

// Reads record k into `to`, which holds maxreclen bytes: its length, or -1. A record that is not
// present leaves iserrno untouched; 105 for a damaged one.
[[nodiscard]] int dataread(std::int32_t k, Bytes to);

// Copies record k's raw trailer: its length (7 with variable length, else 1), or -1.
[[nodiscard]] int datainfo(std::int32_t k, std::span<Byte, kVariableTrailer> trailer);

}  // namespace isam
