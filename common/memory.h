// memory: what the system has of it.
#pragma once

#include <cstdint>

namespace common {

struct Memory {
  std::int64_t all = 0;  // bytes of the machine, or of the group of processes where that is less
  std::int64_t available = 0;  // bytes that the machine has for more without swapping
};

// Both 0 where the system does not tell.
[[nodiscard]] Memory find_memory();

}  // namespace common
