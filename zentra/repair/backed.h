// backed: records that are whole but for their state, which is neither present nor absent: all
// indexes lead to them with the keys that their bytes have.
//
// Needs   the current pair, opened to read; what its check has found
// Never   changes a byte
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "checker/check.h"
#include "isam.h"
#include "zentra/repair/badrecords.h"
#include "zentra/repair/notes.h"

namespace zentra {

// The key of a record, and that in the fields of an item; null where there is none.
[[nodiscard]] Value key_of(const keydescr& k, isam::ConstBytes fixed);
[[nodiscard]] const FileBytes* key_in(const Fields& fields);

// How many indexes lead to a record that is not present with the key that its bytes have; nothing
// where so many items lead astray that not all are known.
[[nodiscard]] std::optional<std::int64_t> indexes_with_its_key(const Notes& notes,
                                                               const std::vector<keydescr>& keys,
                                                               std::int32_t record,
                                                               isam::ConstBytes fixed);

// Gives the bad records that are backed by all indexes, and of which no piece of the variable part
// is missing or another record's, by ascending number. 0, or an errno.
[[nodiscard]] int find_backed(const checker::Check& check, const Notes& notes,
                              const std::vector<keydescr>& keys, const BadRecords& bad,
                              std::vector<std::int32_t>& backed);

}  // namespace zentra
