// key_order: the order of one part of a key, as the tests know it.
#pragma once

#include <algorithm>
#include <cstring>

#include "tests/support/layout.h"

namespace testing_support {

template <typename T>
int ordered(T a, T b) {
  return (a > b) - (a < b);
}

// Numbers in the machine's own form; one whose bytes are all 0xFF is null, the least.
template <typename T>
int ordered_numbers(const Byte* a, const Byte* b) {
  const auto is_null = [](const Byte* at) {
    return std::all_of(at, at + sizeof(T), [](Byte byte) { return byte == 0xFF; });
  };
  if (is_null(a) || is_null(b)) return ordered(is_null(b), is_null(a));
  T left;
  T right;
  std::memcpy(&left, a, sizeof left);
  std::memcpy(&right, b, sizeof right);
  return ordered(left, right);
}

// Below, at or above zero; types that the tests do not know are all equal.
inline int compare_part(int type, int length, const Byte* a, const Byte* b) {
  const int sign = (type & kDescending) != 0 ? -1 : 1;
  switch (type & ~kDescending) {
    case kChar:
      return sign * ordered(std::memcmp(a, b, static_cast<std::size_t>(length)), 0);
    case kInt:
      return sign * ordered(static_cast<std::int16_t>(get2(a)), static_cast<std::int16_t>(get2(b)));
    case kLong:
      return sign * ordered(get4(a), get4(b));
    case kDouble:
      return sign * ordered_numbers<double>(a, b);
    case kFloat:
      return sign * ordered_numbers<float>(a, b);
    default:
      return 0;
  }
}

}  // namespace testing_support
