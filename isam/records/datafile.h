// datafile: record slots of the data file.
//
// Record k (from 1) occupies the slot at byte (k - 1) * slot size: the record, a state byte and,
// with variable length, the length of the variable part and its reference. A slot may straddle
// blocks of the pool.
//
// Needs   the current file
// Keeps   D1 what a slot's trailer says is checked before it is used: 105
//         D2 the variable part is stored or freed before the slot changes: when that fails, the
//            slot is as it was
//         D3 a block whose bytes stay the same is not written
// Never   holds a block while it calls the variable-length storage
#pragma once

#include <cstdint>

#include "isam/base/format.h"

namespace isam {

// Reads record k into `to`, which holds maxreclen bytes: its length, or -1. A record that is not
// present leaves iserrno untouched; 105 for a damaged one.
[[nodiscard]] int dataread(std::int32_t k, Bytes to);

// Record k will be read in a moment: the processor may fetch it meanwhile.
void dataexpect(std::int32_t k);

// Reads these records to `to`, each maxreclen bytes behind the one before, and their lengths. It
// stops at the first that is not present or cannot be read, and leaves iserrno as it was. How many
// it has read; none when pages of the mapping were missing.
[[nodiscard]] std::size_t dataread_many(std::span<const std::int32_t> numbers, Byte* to,
                                        std::int32_t* lengths);

// Copies record k's raw trailer: its length (7 with variable length, else 1), or -1.
[[nodiscard]] int datainfo(std::int32_t k, std::span<Byte, kVariableTrailer> trailer);

// The highest record number of the dictionary; at most one more than the data file has whole slots,
// for its last slot may be cut short. What is still in the pool is written first.
[[nodiscard]] std::int32_t records_in_file();

// Slots that the data file has whole or begins: beyond them it is empty.
[[nodiscard]] std::int32_t slots_in_file();

// Whether record k is present: 1 or 0, -1 when its slot cannot be read.
[[nodiscard]] int datacheck(std::int32_t k);

// Whether the slot of record k, which is not present, refers to storage: 1 or 0, -1 when it cannot
// be read.
[[nodiscard]] int datarefers(std::int32_t k);

// Writes a new record k, from reclen to maxreclen bytes (other lengths are fatal): 0, or -1; 105
// when the slot still refers to a variable part.
[[nodiscard]] int datacreate(std::int32_t k, ConstBytes record);
// Writes record k over what its slot holds, a present record or an absent one, and into the storage
// that the slot refers to (that of an absent one was kept by dataclear()). The record has from
// reclen to maxreclen bytes (other lengths are fatal): 0 or -1. With `release` storage that is no
// longer needed is freed. Without it the variable part must become shorter, and keeps its storage
// until datatrunc().
[[nodiscard]] int datawrite(std::int32_t k, ConstBytes record, bool release);
// Frees the storage that record k keeps beyond its length; when it is absent, all its storage: 0 or
// -1.
[[nodiscard]] int datatrunc(std::int32_t k);
// Mark record k absent: 0 or -1. The storage of its variable part is kept, filled with zero bytes
// (dataclear), or freed (datadelete).
[[nodiscard]] int dataclear(std::int32_t k);
[[nodiscard]] int datadelete(std::int32_t k);

}  // namespace isam
