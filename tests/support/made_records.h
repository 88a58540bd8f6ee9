// made_records: what the records of a built pair hold, the same everywhere. The ready-made shapes
// of pair_builder stand beside it.
#pragma once

#include <cstdint>

#include "tests/support/pair_builder.h"

namespace testing_support {

// A small generator with the same numbers on every platform.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed * 2654435761u + 88172645463325252u) {}
  std::uint32_t operator()(std::uint32_t below) {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return static_cast<std::uint32_t>((state_ >> 16) % below);
  }

 private:
  std::uint64_t state_;
};

// A value of the unique key: the number spread over the range and written in letters.
void put_unique(Byte* at, const PartSpec& part, int number);

// Fills a record with letters, a unique value of the first key, and values of the others that
// repeat.
void make_default_record(const PairSpec& spec, int number, Random& random, Image& record);

}  // namespace testing_support
