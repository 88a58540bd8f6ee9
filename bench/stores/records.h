// records: the records that every store is measured with, each made from its number alone.
//
// A record has 128 bytes: a primary key of 8 digits (its number), a secondary key of 20 bytes that
// about ten records share, filling, and a last word that makes the sum of all its words a function
// of the number. So a reader can tell at little cost that it was given the whole right record,
// whatever version of it. Versions of a record differ in secondary key and filling.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace bench {

constexpr std::size_t kRecordLength = 128;
constexpr std::size_t kKeyLength = 8;
constexpr std::size_t kSecondStart = 8;
constexpr std::size_t kSecondLength = 20;
constexpr std::uint32_t kMaxRecords = 100'000'000;  // what 8 digits tell apart
constexpr std::uint32_t kDuplicates = 10;
constexpr std::size_t kBulk = 64;  // records in one call, in the phases with many

using Record = std::array<char, kRecordLength>;
using Key = std::array<char, kKeyLength>;

// A bijective scrambling of 64 bits: equal sequences everywhere, unlike <random>'s distributions.
constexpr std::uint64_t scramble(std::uint64_t value) {
  value += 0x9E3779B97F4A7C15;
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
  return value ^ (value >> 31);
}

// Pseudo-random numbers, the same for the same seed.
class Sequence {
 public:
  explicit Sequence(std::uint64_t seed) : state_(scramble(seed)) {}

  // From 0 to `limit` - 1.
  std::uint32_t below(std::uint32_t limit) {
    const std::uint64_t high = scramble(++state_) >> 32;
    return static_cast<std::uint32_t>((high * limit) >> 32);
  }

 private:
  std::uint64_t state_;
};

// The sum of the record's sixteen words.
inline std::uint64_t sum_of(const char* record) {
  std::array<std::uint64_t, kRecordLength / sizeof(std::uint64_t)> words;
  std::memcpy(words.data(), record, kRecordLength);
  std::uint64_t sum = 0;
  for (const std::uint64_t word : words) sum += word;
  return sum;
}

// What sum_of() gives for every version of record `number`.
constexpr std::uint64_t sum_for(std::uint32_t number) { return scramble(number); }

Key key_of(std::uint32_t number);

// The number whose key this is, or kMaxRecords when it is no key.
std::uint32_t number_of(const char* key);

// Version `version` of record `number`, in a file of `records` records.
void fill(Record& record, std::uint32_t records, std::uint32_t number, std::uint32_t version);

// The numbers from 0 to `records` - 1 in an order that depends on the seed.
std::vector<std::uint32_t> shuffled(std::uint32_t records, std::uint64_t seed);

}  // namespace bench
