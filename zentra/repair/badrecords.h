// badrecords: records that no index made anew makes good, found before a repair.
//
// Needs   the current pair, opened to read, its dictionary read; checker::ckdata() has run
// Never   changes a byte
#pragma once

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "checker/check.h"
#include "isam.h"
#include "isam/base/format.h"

namespace zentra {

// What a repair does with a record.
enum class Fate : std::uint8_t {
  kDropped,   // it becomes absent
  kEmptied,   // it loses its variable part
  kCleared,   // it is absent already; what its slot still says of a variable part goes
  kPresented  // it becomes present, with all that it has
};

enum class Why : std::uint8_t {
  kOddState,
  kUnreadable,
  kShared,
  kReferenceLeft,
  kEqualKeys,
  kTorn  // the data file ends in its slot, of which nothing is changed
};
// The code by which reports and losses name it.
[[nodiscard]] const char* code_of(Why why);

struct BadRecord {
  std::int32_t record;
  Fate fate;
  Why why;
};
// By ascending number, each once. There may be as many as the file has slots: they are never copied
// to a larger place.
using BadRecords = std::deque<BadRecord>;
// Records with a key of another that keeps it, and that one; by ascending number.
using SameKeys = std::vector<std::pair<std::int32_t, std::int32_t>>;

// How many bytes the slot of a record has in the file.
[[nodiscard]] int slot_bytes(std::int32_t record);
// Copies the bytes of a record's slot in front of its trailer, and the trailer, of which a file of
// fixed length has one byte. False, with errno, when they cannot be read.
[[nodiscard]] bool read_slot(std::int32_t record, isam::Bytes fixed, isam::Bytes trailer);
[[nodiscard]] int trailer_size();

// Gives what can be read of a record's variable part, as its trailer tells: 0, or the errno of what
// the system did not let it read.
[[nodiscard]] int variable_part(isam::ConstBytes trailer, std::string& bytes);

// Looks at all slots but those that others have locked: states that are none, variable parts that
// cannot be read or of which `sharing` are the records, references of absent records, what a slot
// has in which the data file ends.
// `unreadable_fate`: what becomes of a record whose variable part is lost. 0, or an errno: then it
// is not known which records are bad.
[[nodiscard]] int find_bad_records(const checker::Check& check,
                                   const std::set<std::int32_t>& sharing, Fate unreadable_fate,
                                   BadRecords& bad);

// Adds the records whose key in this index without duplicates belongs to one with a lower number.
// 0, or an errno.
[[nodiscard]] int find_equal_keys(const checker::Check& check, const keydescr& k,
                                  BadRecords& records, SameKeys& same_keys);

// Whether the variable parts that could not be read still cannot: else nothing is to be dropped.
[[nodiscard]] bool are_still_unreadable(const BadRecords& records);

}  // namespace zentra
