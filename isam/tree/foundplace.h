// foundplace: where the last search came to an item, so that a call that takes out what it has just
// found need not search again. Of unique indexes without compression alone: there an item can be
// told by its own bytes.
#pragma once

#include <cstdint>

#include "isam/pool/buffers.h"

namespace isam {

struct FoundPlace {
  std::int32_t root = 0;  // of the index; 0: nothing was found
  std::int32_t leaf = 0;
  int offset = 0;
  PageStamp stamp;  // of the leaf: valid while it stands
};
extern FoundPlace found_place;

}  // namespace isam
