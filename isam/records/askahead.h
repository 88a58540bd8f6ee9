// askahead: has the system read what many records in one go need before they are copied.
//
// The files are advised as random access, so that the system reads a page that is not in memory
// alone, when it is touched. While a disk is waited for, all pages of a batch are asked for at
// once. Where a batch goes on beside the one before it, what follows is asked for too: as much as
// the batch has, then twice as much each time, so that a short scan reads little in vain.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>

#include "isam/base/current.h"

namespace isam {

struct ByteRange {
  std::int64_t start = 0;
  std::int64_t end = 0;
};

inline constexpr std::int64_t kAskedTogether = std::int64_t{16} * 1024;  // with such a gap at most
inline constexpr std::int64_t kMostBeyond = std::int64_t{1} << 22;
// Of a longer range the system may read only the first part, as much as a disk takes in one
// transfer: no disk takes less than this.
inline constexpr std::int64_t kAskedAtOnce = std::int64_t{128} * 1024;

[[nodiscard]] inline ByteRange range_of_slot(std::int32_t number, std::int64_t slot_size) {
  return {(number - 1) * slot_size, number * slot_size};
}

template <typename Ask>
void ask_in_pieces(ByteRange range, Ask ask) {
  for (std::int64_t at = range.start; at < range.end; at += kAskedAtOnce) {
    ask(ByteRange{at, std::min(at + kAskedAtOnce, range.end)});
  }
}

// Asks for the slots of these records, of which there is at least one: once for those that follow
// each other closely. Gives the range of all, if they do.
template <typename Ask>
std::optional<ByteRange> ask_for_slots(std::span<const std::int32_t> numbers,
                                       std::int64_t slot_size, Ask ask) {
  ByteRange range = range_of_slot(numbers.front(), slot_size);
  bool are_together = true;
  for (const std::int32_t number : numbers.subspan(1)) {
    const ByteRange next = range_of_slot(number, slot_size);
    if (next.start > range.end + kAskedTogether || next.end < range.start - kAskedTogether) {
      are_together = false;
      ask_in_pieces(range, ask);
      range = next;
    } else {
      range = {std::min(range.start, next.start), std::max(range.end, next.end)};
    }
  }
  ask_in_pieces(range, ask);
  return are_together ? std::optional(range) : std::nullopt;
}

// Asks for what lies beyond a batch of a run, unless half of what was asked for last is still to
// come.
template <typename Ask>
void ask_beyond(ByteRange batch, bool forwards, CopyRun& run, Ask ask) {
  const std::int64_t sign = forwards ? 1 : -1;
  const std::int64_t edge = forwards ? batch.end : batch.start;
  const std::int64_t before = run.beyond * sign;  // not positive: nothing in this direction
  const std::int64_t ahead = before > 0 ? (run.asked - edge) * sign : 0;
  if (before > 0 && ahead >= before / 2) return;
  const std::int64_t length = before > 0 ? 2 * before : batch.end - batch.start;
  run.beyond = sign * std::min(length, kMostBeyond);
  const std::int64_t from = ahead > 0 ? run.asked : edge;
  run.asked = std::max<std::int64_t>(edge + run.beyond, 0);
  ask_in_pieces({std::min(from, run.asked), std::max(from, run.asked)}, ask);
}

// Notes a batch that is about to be copied, and calls `ask(ByteRange)` for what the system should
// read of it and beyond, none of it longer than kAskedAtOnce. Between two batches that follow each
// other a record may be read by itself.
template <typename Ask>
void ask_for_batch(std::span<const std::int32_t> numbers, std::int64_t slot_size, CopyRun& run,
                   Ask ask) {
  const std::int64_t gap = std::abs(std::int64_t{numbers.front()} - run.last) * slot_size;
  const bool goes_on = gap <= kAskedTogether + slot_size;
  if (!goes_on) run.beyond = 0;
  run.last = numbers.back();
  if (!run.has_waited) return;
  const std::optional<ByteRange> batch = ask_for_slots(numbers, slot_size, ask);
  if (!goes_on || !batch || numbers.front() == numbers.back()) return;
  ask_beyond(*batch, numbers.back() > numbers.front(), run, ask);
}

// The longest that the copy of such a batch takes without a disk: each page may be touched for the
// first time, and its bytes come from memory at 1 GB a second at least.
[[nodiscard]] inline std::chrono::nanoseconds longest_copy(std::span<const std::int32_t> numbers,
                                                           std::int64_t slot_size) {
  constexpr std::int64_t kPage = 4096;
  constexpr std::int64_t kAnyCopy = 150'000, kFirstTouch = 4'000;
  std::int64_t pages = 0;
  ByteRange touched{-1, -1};  // first and last page of the slot before
  for (const std::int32_t number : numbers) {
    const ByteRange slot = range_of_slot(number, slot_size);
    const ByteRange next{slot.start / kPage, (slot.end - 1) / kPage};
    const bool shares_one = next.start == touched.end || next.end == touched.start;
    pages += next.end - next.start + (shares_one ? 0 : 1);
    touched = next;
  }
  const auto bytes = static_cast<std::int64_t>(numbers.size()) * slot_size;
  return std::chrono::nanoseconds(kAnyCopy + pages * kFirstTouch + bytes);
}

}  // namespace isam
