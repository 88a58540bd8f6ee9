// byterange: some bytes of a file.
#pragma once

#include <cstdint>

namespace common {

struct ByteRange {
  std::int64_t start = 0;
  std::int64_t end = 0;

  [[nodiscard]] bool empty() const { return start >= end; }
  bool operator==(const ByteRange&) const = default;
};

}  // namespace common
