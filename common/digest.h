// digest: sixteen bytes that stand for many, to tell whether these are the same.
//
// Each digest has its own random key. Whoever makes the bytes does not know it, so that different
// bytes have the same digest as often as chance has it: not once in 2^100 attempts. The function is
// SipHash with one round a word and three at the end, and 128 bits of result.
#pragma once

#include <array>
#include <cstdint>

#include "common/bytes.h"

namespace common {

class Digest {
 public:
  static constexpr std::size_t kSize = 16;

  Digest();
  void make(ConstBytes bytes, Byte* to) const;

 private:
  std::array<std::uint64_t, 2> key_{};
};

}  // namespace common
