// lockspace: where the locks of a pair lie, as ranges of its index file far beyond any real data.
#pragma once

#include <sys/types.h>

namespace isam::lockspace {

inline constexpr off_t kSemaphoreStart = 0;
inline constexpr off_t kSemaphoreLength = 0x3FFFFFFF;
inline constexpr off_t kOpenLockStart = 0x7FFFFFFF;
inline constexpr off_t kOpenLockLength = 1;
// The lock of record k is the byte k behind this.
inline constexpr off_t kRecordsStart = 0x40000000;
inline constexpr off_t kRecordsLength = 0x3FFFFFFE;

}  // namespace isam::lockspace
