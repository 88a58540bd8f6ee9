// slotblock: the slots of a data file, many in one reading.
//
// Needs   a pair that is held still
// Never   gives up because of a page that cannot be read: then each slot is read by itself
#pragma once

#include <cstdint>
#include <vector>

#include "zentra/diff/twopairs.h"

namespace zentra {

struct Slot {
  enum class State : std::uint8_t { kAbsent, kPresent, kLost };

  State state = State::kAbsent;
  const char* why = nullptr;  // a lost one that is to be told
  isam::ConstBytes bytes{};   // of one that is present

  [[nodiscard]] bool is_present() const { return state == State::kPresent; }
  [[nodiscard]] bool is_lost() const { return state == State::kLost; }
};

class SlotBlock {
 public:
  explicit SlotBlock(const Side& side);

  // The highest number of which the file has any byte.
  [[nodiscard]] std::int32_t last_in_file() const { return last_in_file_; }
  void read(std::int32_t first, std::size_t slots);
  // Of a number that was read.
  [[nodiscard]] Slot slot(std::int32_t number) const;
  // What was read; nothing where a slot could not be.
  [[nodiscard]] isam::ConstBytes bytes() const;

 private:
  const Side& side_;
  std::size_t size_;
  std::int32_t last_in_file_;
  std::int32_t first_ = 1;
  std::vector<isam::Byte> bytes_;
  std::size_t got_ = 0;
  std::vector<bool> unreadable_;  // by slot; empty: none
};

}  // namespace zentra
