#include "bench/stores/records.h"

#include <numeric>
#include <utility>

namespace bench {
namespace {

constexpr std::size_t kVersionStart = kSecondStart + kSecondLength;
constexpr std::size_t kFillStart = 32;
constexpr std::size_t kBalanceStart = kRecordLength - sizeof(std::uint64_t);
constexpr std::size_t kDigits = 8;

void put_digits(char* at, std::uint32_t value) {
  for (std::size_t i = kDigits; i-- > 0; value /= 10) at[i] = static_cast<char>('0' + value % 10);
}

// Group numbers sort like the digits they begin with; letters that follow from the group fill up.
void put_second(char* at, std::uint32_t group) {
  put_digits(at, group);
  std::uint64_t bits = scramble(group);
  for (std::size_t i = kDigits; i < kSecondLength; ++i, bits >>= 5) {
    at[i] = static_cast<char>('A' + (bits & 15));
  }
}

}  // namespace

Key key_of(std::uint32_t number) {
  Key key;
  put_digits(key.data(), number);
  return key;
}

std::uint32_t number_of(const char* key) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < kDigits; ++i) {
    if (key[i] < '0' || key[i] > '9') return kMaxRecords;
    number = number * 10 + static_cast<std::uint32_t>(key[i] - '0');
  }
  return number;
}

void fill(Record& record, std::uint32_t records, std::uint32_t number, std::uint32_t version) {
  const std::uint64_t seed = scramble((std::uint64_t{version} << 32) | number);
  const std::uint32_t groups = records < kDuplicates ? 1 : records / kDuplicates;
  put_digits(record.data(), number);
  put_second(&record[kSecondStart], static_cast<std::uint32_t>(seed % groups));
  std::memcpy(&record[kVersionStart], &version, sizeof version);
  std::uint64_t word = seed;
  for (std::size_t at = kFillStart; at < kBalanceStart; at += sizeof word) {
    word = word * 6364136223846793005 + 1442695040888963407;
    std::memcpy(&record[at], &word, sizeof word);
  }
  const std::uint64_t nothing = 0;
  std::memcpy(&record[kBalanceStart], &nothing, sizeof nothing);
  const std::uint64_t balance = sum_for(number) - sum_of(record.data());
  std::memcpy(&record[kBalanceStart], &balance, sizeof balance);
}

std::vector<std::uint32_t> shuffled(std::uint32_t records, std::uint64_t seed) {
  std::vector<std::uint32_t> numbers(records);
  std::iota(numbers.begin(), numbers.end(), 0U);
  Sequence sequence(seed);
  for (std::uint32_t left = records; left > 1; --left) {
    std::swap(numbers[left - 1], numbers[sequence.below(left)]);
  }
  return numbers;
}

}  // namespace bench
