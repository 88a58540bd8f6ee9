// trailer: what stands behind a record in its slot: its state, and with variable length the length
// of the variable part and the reference to its first piece.
#pragma once

#include <cstdint>

#include "isam/base/format.h"

namespace zentra {

[[nodiscard]] inline bool is_state(isam::Byte byte) {
  return byte == isam::kRecordPresent || byte == isam::kRecordAbsent;
}

// Of a trailer with variable length; 0 for none.
[[nodiscard]] inline std::int32_t reference_of(isam::ConstBytes trailer) {
  return common::ldlong(trailer.data() + isam::kTrailerReference);
}

}  // namespace zentra
