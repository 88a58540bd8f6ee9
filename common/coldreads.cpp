#include "common/coldreads.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <new>

#include "common/memory.h"

namespace common {
namespace {

constexpr std::int64_t kPage = 4096;
constexpr std::int64_t kPiece = ColdReads::kLeastAsked;

// Whether a file has no more than half of what the memory holds that this process may use.
bool fits_in_memory(std::int64_t file_size) {
  static const std::int64_t most = find_memory().all / 2;
  return file_size <= most;
}

}  // namespace

void ask_system_for(int fd, ByteRange range) {
  // Of a longer range the system may read only the first part, as much as a disk takes in one
  // transfer: no disk takes less than this.
  constexpr std::int64_t kAtOnce = std::int64_t{128} * 1024;
  for (std::int64_t at = range.start; at < range.end; at += kAtOnce) {
    ::posix_fadvise(fd, at, std::min(kAtOnce, range.end - at), POSIX_FADV_WILLNEED);
  }
}

bool DiskWait::has_new_faults(long& faults) {
  rusage usage{};
  if (::getrusage(RUSAGE_THREAD, &usage) != 0) return true;
  const bool are_new = usage.ru_majflt != faults;
  faults = usage.ru_majflt;
  return are_new;
}

ByteRange ColdReads::note(std::int64_t offset, std::int64_t file_size, bool has_waited) {
  if (has_waited && looks_left_ == 0) begin_anew();
  looks_left_ = has_waited ? kPatience : std::max(looks_left_ - 1, 0);
  reads_left_ = looks_left_ > 0 ? 1 : kLooksAt;
  if (!has_waited || !fits_in_memory(file_size)) return {};
  if (offset >= last_.start && offset < last_.end) return {};  // it is on its way
  const std::int64_t start = offset - offset % kPiece;
  ByteRange piece{start, std::min(start + kPiece, file_size)};
  if (!last_.empty() && start == last_.end) {  // it goes on
    piece.end = std::min(start + std::min(2 * (last_.end - last_.start), kMostAsked), file_size);
  }
  const ByteRange wanted = around(piece, file_size, kPiece);
  if (!wanted.empty()) return last_ = wanted;
  if (++gone_ > are_asked_.size()) begin_anew();
  return {};
}

ByteRange ColdReads::around(ByteRange needed, std::int64_t file_size) {
  return around(needed, file_size, kPage);
}

// The same, of `least` bytes or more at a multiple of them.
ByteRange ColdReads::around(ByteRange needed, std::int64_t file_size, std::int64_t least) {
  const std::int64_t unit = std::max(window(file_size), least);
  const std::int64_t last = needed.end + unit - 1;
  const ByteRange wanted{needed.start - needed.start % unit,
                         std::max(std::min(last - last % unit, file_size), needed.end)};
  if (unit >= kPiece) return not_asked(needed, wanted, file_size);
  total_ += wanted.end - wanted.start;
  return wanted;
}

void ColdReads::begin_anew() {
  total_ = 0;
  gone_ = 0;
  are_asked_.clear();
}

// How much is asked for around a read; 0 for what it needs alone.
std::int64_t ColdReads::window(std::int64_t file_size) const {
  // After one part of so many the windows are no smaller than a piece; they are as many pieces as
  // such parts were asked for.
  constexpr std::int64_t kParts = 64;
  if (file_size <= 0 || !fits_in_memory(file_size)) return 0;
  const std::int64_t parts = std::min(total_, file_size) * kParts / file_size;
  if (parts == 0) return 0;
  const auto pieces = static_cast<std::int64_t>(std::bit_floor(static_cast<std::uint64_t>(parts)));
  return std::min(pieces * kPiece, kMostAsked);
}

// The wanted range without the pieces at both ends that were asked for before; nothing when those
// of the needed bytes were. Now they all are.
ByteRange ColdReads::not_asked(ByteRange needed, ByteRange wanted, std::int64_t file_size) {
  const auto piece_of = [](std::int64_t at) { return static_cast<std::size_t>(at / kPiece); };
  const auto behind = [&](std::int64_t end) { return piece_of(end + kPiece - 1); };
  const std::size_t pieces = behind(std::max(file_size, needed.end));
  try {
    if (are_asked_.size() < pieces) are_asked_.resize(pieces);
  } catch (const std::bad_alloc&) {
    return wanted;
  }
  const auto all_asked = [&](std::size_t first, std::size_t end) {
    while (first < end && are_asked_[first]) ++first;
    return first == end;
  };
  if (all_asked(piece_of(needed.start), behind(needed.end))) return {};
  std::size_t first = piece_of(wanted.start);
  std::size_t end = behind(wanted.end);
  while (are_asked_[first]) ++first;
  while (are_asked_[end - 1]) --end;
  for (std::size_t i = first; i < end; ++i) {
    if (!are_asked_[i]) total_ += kPiece;
    are_asked_[i] = true;
  }
  wanted.start = std::max(wanted.start, static_cast<std::int64_t>(first) * kPiece);
  wanted.end = std::min(wanted.end, static_cast<std::int64_t>(end) * kPiece);
  return wanted;
}

}  // namespace common
