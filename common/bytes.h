// bytes: numbers as the files hold them, and the order of byte strings.
//
// Needs   pointers to as many bytes as the number or the string has; nothing is checked here. A
//         little-endian machine
// Gives   the number encodings of every on-disk structure; prefetch()
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace common {

using Byte = unsigned char;
using Bytes = std::span<Byte>;
using ConstBytes = std::span<const Byte>;

// Has the processor fetch the line of memory at any address, for what will be read there soon.
inline void prefetch(const void* at) {
  __builtin_prefetch(at);
  // A compiler that sees the whole library leaves out calls of functions without effect, and a
  // request for memory is none to it: this statement is one.
  asm volatile("");
}

// The same of all lines of these bytes.
inline void prefetch(const Byte* from, std::size_t length) {
  constexpr std::size_t kLine = 64;
  for (std::size_t at = 0; at < length; at += kLine) prefetch(from + at);
}

// 2-byte big-endian, as an unsigned value 0..65535.
[[nodiscard]] inline std::uint16_t ldword(const Byte* at) {
  return static_cast<std::uint16_t>(at[0] << 8 | at[1]);
}

// Stores the lower 16 bits.
inline void stword(std::uint32_t value, Byte* at) {
  at[0] = static_cast<Byte>(value >> 8);
  at[1] = static_cast<Byte>(value);
}

// 2-byte big-endian two's complement.
[[nodiscard]] inline std::int16_t ldshort(const Byte* at) {
  return static_cast<std::int16_t>(ldword(at));
}

// 4-byte big-endian two's complement.
[[nodiscard]] inline std::int32_t ldlong(const Byte* at) {
  std::uint32_t value;
  std::memcpy(&value, at, sizeof value);
  return static_cast<std::int32_t>(__builtin_bswap32(value));
}

inline void stlong(std::int32_t value, Byte* at) {
  const std::uint32_t swapped = __builtin_bswap32(static_cast<std::uint32_t>(value));
  std::memcpy(at, &swapped, sizeof swapped);
}

// IEEE-754 values stand on disk in the machine's own byte order.
[[nodiscard]] inline double lddbl(const Byte* at) {
  double value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

[[nodiscard]] inline float ldfloat(const Byte* at) {
  float value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

// A null double or float is all 0xFF bytes, and loads as 0.
inline constexpr Byte fltnull[8] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

[[nodiscard]] inline double lddblnull(const Byte* at, bool* isnull) {
  *isnull = std::memcmp(at, fltnull, sizeof(double)) == 0;
  return *isnull ? 0 : lddbl(at);
}

[[nodiscard]] inline float ldfltnull(const Byte* at, bool* isnull) {
  *isnull = std::memcmp(at, fltnull, sizeof(float)) == 0;
  return *isnull ? 0 : ldfloat(at);
}

// Copies all bytes to where they have room. (std::ranges::copy of constant bytes goes byte by byte
// in g++ 12.)
inline void copy_bytes(ConstBytes from, Byte* to) {
  if (!from.empty()) std::memcpy(to, from.data(), from.size());
}

// Compares n bytes as unsigned: -1, 0 or 1. The first eight, compared as one number, settle most.
[[nodiscard]] inline int bycmpr(const Byte* a, const Byte* b, std::size_t n) {
  if (n >= 8) {
    std::uint64_t left;
    std::uint64_t right;
    std::memcpy(&left, a, sizeof left);
    std::memcpy(&right, b, sizeof right);
    if (left != right) return __builtin_bswap64(left) < __builtin_bswap64(right) ? -1 : 1;
    if (n == 8) return 0;
    a += 8;
    b += 8;
    n -= 8;
  }
  const int order = std::memcmp(a, b, n);
  return (order > 0) - (order < 0);
}

}  // namespace common
