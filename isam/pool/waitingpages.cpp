#include "isam/pool/waitingpages.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "common/memory.h"

namespace isam {
namespace {

constexpr std::int64_t kPartOfMemory = 8;   // a file may take no more of all memory
constexpr std::int64_t kPartAvailable = 8;  // so much of it remains available
constexpr std::int64_t kLongest = 1000;     // milliseconds that a page waits while calls go on
constexpr std::size_t kFewChanges = 3;      // of a page: to write each at once costs no more
constexpr std::size_t kPause = 16;          // so many for each page are not taken after that
constexpr std::size_t kPauseWithoutMemory = 65536;

// Of a clock that is cheap to read and ticks some hundred times a second.
std::int64_t milliseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

// Calls `use` with each part of these bytes whose page waits: where it stands in the file, where in
// the bytes, and its length.
template <typename Use>
void WaitingPages::each_waiting(std::int64_t offset, std::size_t size, Use use) const {
  if (offset < 0 || offset >= std::int64_t{kMostBytes}) return;
  const auto start = static_cast<std::size_t>(offset);
  const std::size_t end = std::min(start + size, kMostBytes);
  for (std::size_t at = start; at < end;) {
    const std::size_t part_end = std::min(end, (at / kPage + 1) * kPage);
    if (waits(at / kPage)) use(at, at - start, part_end - at);
    at = part_end;
  }
}

bool WaitingPages::has(const OpenPair& file, std::int64_t offset, std::size_t size) const {
  bool any = false;
  if (has(file)) each_waiting(offset, size, [&](auto...) { any = true; });
  return any;
}

void WaitingPages::put_into(const OpenPair& file, std::int64_t offset, Bytes bytes) const {
  if (!has(file)) return;
  each_waiting(offset, bytes.size(), [&](std::size_t at, std::size_t within, std::size_t length) {
    std::memcpy(bytes.data() + within, &bytes_[at], length);
  });
}

void WaitingPages::written(const OpenPair& file, std::int64_t offset, ConstBytes bytes) {
  if (!has(file)) return;
  each_waiting(offset, bytes.size(), [&](std::size_t at, std::size_t within, std::size_t length) {
    std::memcpy(&bytes_[at], bytes.data() + within, length);
  });
}

// Whether pages of this file may wait, which needs memory.
bool WaitingPages::serve(OpenPair& file) {
  if (paused_ > 0) {
    --paused_;
    return false;
  }
  if (file_ == &file && bytes_ != nullptr) return true;
  if (count_ > 0) return false;
  if (bytes_ == nullptr) {
    const common::Memory memory = common::find_memory();
    const bool is_there = static_cast<std::int64_t>(kMostBytes) <= memory.all / kPartOfMemory &&
                          memory.available > memory.all / kPartAvailable;
    if (is_there) bytes_ = common::make_arena<Byte>(kMostBytes);
    if (bytes_ == nullptr) {
      paused_ = kPauseWithoutMemory;
      return false;
    }
  }
  file_ = &file;
  return true;
}

// Has all these pages wait, with what the file has: false when it does not have all of them, or
// they cannot be had from its mapping.
bool WaitingPages::fetch(OpenPair& file, std::size_t first, std::size_t last) {
  for (std::size_t page = first; page <= last; ++page) {
    if (waits(page)) continue;
    const auto offset = static_cast<std::int64_t>(page * kPage);
    if (!file.data.map.look({&bytes_[page * kPage], kPage}, offset)) return false;
    if (count_++ == 0) since_ = milliseconds();
    waiting_[page / kWord] |= std::uint64_t{1} << page % kWord;
  }
  return true;
}

bool WaitingPages::take(OpenPair& file, std::int64_t offset, ConstBytes bytes) {
  const bool is_within = offset >= 0 && !bytes.empty() && bytes.size() <= kMostBytes &&
                         offset <= static_cast<std::int64_t>(kMostBytes - bytes.size());
  if (!is_within) return false;
  const auto from = static_cast<std::size_t>(offset);
  if (!serve(file) || !fetch(file, from / kPage, (from + bytes.size() - 1) / kPage)) return false;
  std::memcpy(&bytes_[from], bytes.data(), bytes.size());
  ++changes_;
  return true;
}

// All were handed out to be written. Few changes once say little: it may have been soon after the
// time before.
void WaitingPages::note_end(std::size_t pages_written) {
  const bool are_few = changes_ < kFewChanges * pages_written;
  if (are_few && had_few_) paused_ = kPause * pages_written;
  had_few_ = are_few;
  changes_ = 0;
  since_ = milliseconds();
}

bool WaitingPages::is_due() const { return count_ > 0 && milliseconds() - since_ > kLongest; }

void WaitingPages::drop(const OpenPair& file) {
  if (file_ != &file) return;
  waiting_.fill(0);
  count_ = changes_ = 0;
  file_ = nullptr;
}

void WaitingPages::give_back() {
  if (count_ > 0) return;
  bytes_ = {};
  file_ = nullptr;
}

}  // namespace isam
