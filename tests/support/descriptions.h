// descriptions: descriptions of keys, for the library's calls.
#pragma once

#include <vector>

#include "isam.h"

namespace testing_support {

// At most MAXPARTS parts.
inline keydescr key_of(const std::vector<keypart>& parts, int flags = 0) {
  keydescr k{};
  k.flags = static_cast<std::int16_t>(flags);
  for (const keypart& part : parts) {
    k.part[k.nparts++] = part;
    k.keylen = static_cast<std::int16_t>(k.keylen + part.length);
  }
  return k;
}

}  // namespace testing_support
