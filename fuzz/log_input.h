// log_input: any bytes whatever as a log. What links this also mutates such inputs so that records
// stay records most of the time.
//
// Input   one byte that chooses what is done with the log; the log without its magic number
#pragma once

#include <string>

#include "fuzz/fuzz_pair.h"

namespace fuzz {

// Bits of that byte when the input is to be listed.
namespace listing {
inline constexpr std::uint8_t kDump = 1;      // the records' bytes as well
inline constexpr std::uint8_t kTrail = 2;     // no log but an audit trail
inline constexpr std::uint8_t kVariable = 4;  // ... of a pair of variable length
}  // namespace listing

// The magic number and the records of an input that is not empty.
void write_log(const std::string& path, Input data);

}  // namespace fuzz
