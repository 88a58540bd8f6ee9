// layout: the on-disk numbers as the tests know them, written down a second time on purpose.
#pragma once

#include <cstdint>
#include <vector>

namespace testing_support {

using Byte = unsigned char;
using Image = std::vector<Byte>;

inline int get2(const Byte* at) { return at[0] << 8 | at[1]; }
inline std::int32_t get4(const Byte* at) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(at[0]) << 24 |
                                   static_cast<std::uint32_t>(at[1]) << 16 |
                                   static_cast<std::uint32_t>(at[2]) << 8 | at[3]);
}
inline void put2(Byte* at, std::int64_t value) {
  at[0] = static_cast<Byte>(value >> 8);
  at[1] = static_cast<Byte>(value);
}
inline void put4(Byte* at, std::int64_t value) {
  put2(at, value >> 16);
  put2(at + 2, value);
}

namespace dict {
inline constexpr int kMagic = 0, kNodeSize = 6, kKeys = 8, kDupSize = 11, kRecordSize = 13,
                     kKeyNode = 15, kCollate = 19, kFreeData = 25, kFreeNode = 29, kNextData = 33,
                     kNextNode = 37, kStamp = 41, kUniqueId = 45, kAuditNode = 49, kLockMethod = 53,
                     kMaxRecord = 59, kStorageHeads = 61, kCollation = 81, kSize = 117;
}  // namespace dict

inline constexpr int kDups = 1, kDCompress = 2, kLCompress = 4, kTCompress = 8;
inline constexpr int kChar = 0, kInt = 1, kLong = 2, kDouble = 3, kFloat = 4, kDescending = 128;

}  // namespace testing_support
