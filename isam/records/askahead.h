// askahead: has the system read what many records in one go need before they are copied.
//
// The files are advised as random access, so that the system reads a page that is not in memory
// alone, when it is touched. While a disk is waited for, all pages of a batch are asked for at
// once, with more around them the more was asked for (common/coldreads). Where a batch goes on
// beside the one before it, what follows is asked for instead: as much as the batch has, then twice
// as much each time, so that a short scan reads little in vain.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>

#include "common/coldreads.h"
#include "common/filemap.h"
#include "isam/base/current.h"

namespace isam {

using common::ByteRange;

inline constexpr std::int64_t kAskedTogether = std::int64_t{16} * 1024;  // with such a gap at most
inline constexpr std::int64_t kMostBeyond = std::int64_t{1} << 22;
// Batches after one that has waited. When what is beyond is there in time, none does.
inline constexpr int kBatchesAsked = 4096;
// Where none has waited lately, one of so many that follow each other is timed, the first among
// them: a look at the clock costs as much as copying two records.
inline constexpr unsigned kOneTimedOf = 4;

[[nodiscard]] inline ByteRange range_of_slot(std::int32_t number, std::int64_t slot_size) {
  return {(number - 1) * slot_size, number * slot_size};
}

// Calls `take` for the slots of these records, of which there is at least one: once for those that
// follow each other closely. Gives the range of all, if they do, without a call.
template <typename Take>
std::optional<ByteRange> join_slots(std::span<const std::int32_t> numbers, std::int64_t slot_size,
                                    Take take) {
  ByteRange range = range_of_slot(numbers.front(), slot_size);
  bool are_together = true;
  for (const std::int32_t number : numbers.subspan(1)) {
    const ByteRange next = range_of_slot(number, slot_size);
    if (next.start > range.end + kAskedTogether || next.end < range.start - kAskedTogether) {
      are_together = false;
      take(range);
      range = next;
    } else {
      range = {std::min(range.start, next.start), std::max(range.end, next.end)};
    }
  }
  if (are_together) return range;
  take(range);
  return std::nullopt;
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
  ask(ByteRange{std::min(from, run.asked), std::max(from, run.asked)});
}

// Notes a batch that is about to be copied out of a file of so many bytes, and calls
// `ask(ByteRange)` for what the system should read of it and beyond. Between two batches that
// follow each other a record may be read by itself.
template <typename Ask>
void ask_for_batch(std::span<const std::int32_t> numbers, std::int64_t slot_size, CopyRun& run,
                   common::ColdReads& reads, std::int64_t file_size, Ask ask) {
  const std::int64_t gap = std::abs(std::int64_t{numbers.front()} - run.last) * slot_size;
  const bool goes_on = gap <= kAskedTogether + slot_size;
  if (!goes_on) {
    run.beyond = 0;
    run.in_row = 0;
  }
  run.last = numbers.back();
  if (run.patience == 0) return;
  --run.patience;
  const auto ask_around = [&](ByteRange slots) {
    const ByteRange range = reads.around(slots, file_size);
    if (!range.empty()) {
      ask(range);
    } else if (run.has_waited) {
      ask(slots);  // it has left the memory again
    }
  };
  const std::optional<ByteRange> batch = join_slots(numbers, slot_size, ask_around);
  if (!batch) return;
  if (!goes_on || numbers.front() == numbers.back()) return ask_around(*batch);
  const bool forwards = numbers.back() > numbers.front();
  const bool is_asked = forwards ? run.beyond > 0 && batch->end <= run.asked
                                 : run.beyond < 0 && batch->start >= run.asked;
  if (!is_asked) ask(*batch);
  ask_beyond(*batch, forwards, run, ask);
}

// Lets `copy` copy the slots of these records out of the mapping of a file, as FileMap::read_by()
// does, and has the system read them before, while such copies wait for the disk.
template <typename Copy>
[[nodiscard]] bool copy_batch(std::span<const std::int32_t> numbers, std::int64_t slot_size,
                              CopyRun& run, common::FileMap& map, int fd, Copy copy) {
  common::ColdReads& reads = map.cold_reads();
  ask_for_batch(numbers, slot_size, run, reads, map.known_size(),
                [fd](ByteRange range) { common::ask_system_for(fd, range); });
  if (run.patience == 0 && run.in_row++ % kOneTimedOf != 0) return map.read_by(copy);
  const common::DiskWait wait;
  if (!map.read_by(copy)) return false;
  run.has_waited = wait.seen(reads.faults);
  if (!run.has_waited) return true;
  if (run.patience == 0) reads.begin_anew();
  run.patience = kBatchesAsked;
  return true;
}

}  // namespace isam
