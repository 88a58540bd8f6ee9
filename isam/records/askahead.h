// askahead: has the system read what many records in one go need before they are copied.
//
// The files are advised as random access, so that the system reads a page that is not in memory
// alone, when it is touched. While a disk is waited for, all pages of a batch are asked for at
// once; where its records lie beside each other, those that follow in the file too.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

namespace isam {

struct ByteRange {
  std::int64_t start = 0;
  std::int64_t end = 0;
};

inline constexpr std::int64_t kAskedTogether = std::int64_t{16} * 1024;  // with such a gap at most
inline constexpr std::int64_t kAskedBeyond = std::int64_t{1} << 22;

// Calls `ask(ByteRange)` for the slots of these records, of which there is at least one: once for
// those that follow each other closely.
template <typename Ask>
void ask_for_slots(std::span<const std::int32_t> numbers, std::int64_t slot_size, Ask ask) {
  const auto range_of = [=](std::int32_t number) {
    return ByteRange{(number - 1) * slot_size, number * slot_size};
  };
  ByteRange range = range_of(numbers.front());
  bool are_together = numbers.size() > 1;
  for (const std::int32_t number : numbers.subspan(1)) {
    const ByteRange next = range_of(number);
    if (next.start > range.end + kAskedTogether || next.end < range.start - kAskedTogether) {
      are_together = false;
      ask(range);
      range = next;
    } else {
      range = {std::min(range.start, next.start), std::max(range.end, next.end)};
    }
  }
  if (are_together && numbers.back() > numbers.front()) range.end += kAskedBeyond;
  if (are_together && numbers.back() < numbers.front()) {
    range.start = std::max<std::int64_t>(range.start - kAskedBeyond, 0);
  }
  ask(range);
}

}  // namespace isam
