#include "common/readahead.h"

#include <chrono>
#include <new>

#include "common/coldreads.h"
#include "common/io.h"

namespace common {

bool ReadAhead::covers(int fd, std::int64_t offset, std::size_t length) const {
  return fd == fd_ && offset >= offset_ &&
         offset + static_cast<std::int64_t>(length) <= offset_ + static_cast<std::int64_t>(length_);
}

namespace {

// Has the system read what follows, while what was read is worked on. The files are advised as
// random access, so that it does not of itself.
void ask_beyond(int fd, std::int64_t offset) {
  constexpr std::int64_t kAsked = std::int64_t{512} * 1024;
  ask_system_for(fd, {offset, offset + kAsked});
}

}  // namespace

void ReadAhead::fill(int fd, std::int64_t offset) {
  using Clock = std::chrono::steady_clock;
  constexpr auto kWithoutDisk = std::chrono::microseconds(100);
  if (!window_) window_.reset(new (std::nothrow) Byte[kWindow]);
  if (!window_) return;  // without memory the reads stay small
  const auto start = Clock::now();
  const ssize_t got = read_at(fd, {window_.get(), kWindow}, offset);
  const bool has_waited = Clock::now() - start > kWithoutDisk;
  offset_ = offset;
  length_ = got < 0 ? 0 : static_cast<std::size_t>(got);
  if (got >= 0 && length_ < kWindow) {
    end_ = offset + got;
  } else if (has_waited) {
    ask_beyond(fd, offset + static_cast<std::int64_t>(kWindow));
  }
}

ssize_t ReadAhead::read(int fd, FileMap& map, Bytes to, std::int64_t offset) {
  if (fd != fd_) {
    forget(fd_);  // the window is still over another file
    fd_ = fd;
  }
  const auto size = static_cast<std::int64_t>(to.size());
  const bool forward = offset >= expected_ && offset <= expected_ + kReach * size;
  run_ = forward ? run_ + 1 : 0;
  expected_ = offset + size;
  if (offset >= end_) return 0;

  if (!covers(fd, offset, to.size()) && run_ >= kRunBeforeFilling) fill(fd, offset);
  if (covers(fd, offset, to.size())) {
    std::memcpy(to.data(), window_.get() + (offset - offset_), to.size());
    return static_cast<ssize_t>(to.size());
  }
  // Also a window just filled does not cover them when it could not be read or the file ends within
  // them: a read of these bytes alone tells which.
  return map.read(fd, to, offset);
}

void ReadAhead::forget(int fd) {
  if (fd != fd_) return;
  fd_ = -1;
  length_ = 0;
  end_ = kUnknown;
  run_ = 0;
}

}  // namespace common
