// model: what the records of a store should be at any time.
#pragma once

#include <cstdint>
#include <vector>

#include "bench/stores/records.h"
#include "bench/stores/store.h"

namespace bench {

class Model {
 public:
  // No record is present.
  explicit Model(std::uint32_t records) : versions_(records, 0) {}

  [[nodiscard]] std::uint32_t records() const {
    return static_cast<std::uint32_t>(versions_.size());
  }

  // Makes the next version of record `number` and counts it as stored.
  void next(std::uint32_t number, Record& record);
  // Counts the next version as stored without making it.
  void skip(std::uint32_t number) {
    versions_[number] = (versions_[number] & ~kPresent) + 1 + kPresent;
  }
  void remove(std::uint32_t number) { versions_[number] &= ~kPresent; }

  // Reads the whole store in both orders and compares every byte. Throws std::runtime_error when
  // the store holds anything else.
  void verify(Store& store) const;

 private:
  friend class Verifier;
  static constexpr std::uint32_t kPresent = 0x8000'0000;

  std::vector<std::uint32_t> versions_;
};

}  // namespace bench
