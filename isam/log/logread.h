// logread: reading a transaction log: at an offset, from its first record on, and back along the
// links of one process.
//
// Needs   the descriptor of a log, whose bytes may be anything
// Keeps   R1 every walk ends: each step of a scan goes on by at least the length of the smallest
//            record, each step of a chain leads back
// Gives   records that stay valid until the next is read through the same window or walk
#pragma once

#include <cstdint>
#include <vector>

#include "isam/log/logformat.h"

namespace isam::txlog {

// Reads a log piece by piece through one buffer.
class LogWindow {
 public:
  explicit LogWindow(int fd) : fd_(fd) {}

  // The record at `offset`, whole: as many bytes as its header says. None, with iserrno as it was,
  // at the end of the log and where the record would reach past it; none with iserrno 118 or 116
  // when reading failed. A header may say less than a record can have: that record has kSmallest
  // bytes, and the caller compares its length() before it goes on.
  [[nodiscard]] LogRecord isgetnext(std::int64_t offset);

 private:
  friend class LogChain;

  // The record of `length` bytes at `offset`, as the link of a later record says, when it is wholly
  // there; else none, with iserrno 118 or 116 when reading failed. It may be any bytes: the caller
  // looks at its length(). Earlier records are likely to be at hand afterwards.
  [[nodiscard]] LogRecord isgetprev(std::int64_t offset, int length);
  [[nodiscard]] bool holds(std::int64_t offset, std::size_t length) const;
  [[nodiscard]] ConstBytes at(std::int64_t offset, std::size_t length) const;
  // Reads up to `length` bytes from `offset` into the buffer: 0, also at the log's end, or -1 with
  // 116 or 118.
  int readlog(std::int64_t offset, std::size_t length);

  int fd_;
  std::int64_t start_ = 0;  // in the log, of what the buffer holds
  std::vector<Byte> buffer_;
  std::size_t filled_ = 0;  // bytes of the buffer that were read
};

// The one walk over a log from its first record on.
class LogScan {
 public:
  explicit LogScan(int fd) : window_(fd) {}

  // The next record, as isgetnext() gives it. Behind one that is shorter than a record can be, and
  // behind the end, there is none.
  [[nodiscard]] LogRecord next();
  // Where the record stands; without one, where the scan has ended.
  [[nodiscard]] std::int64_t offset() const { return offset_; }

 private:
  LogWindow window_;
  std::int64_t offset_ = kMagicSize;
  int length_ = 0;  // of the record there
  bool is_over_ = false;
};

// The one walk back along the linked records of a process, from `newest` on.
class LogChain {
 public:
  LogChain(int fd, std::int32_t process, Link newest)
      : window_(fd), process_(process), at_(newest) {}

  // The next record back. None with iserrno: 116 or 118 when it could not be read, 119 when what
  // stands there is no record of the process, or its link does not lead back. The caller stops at
  // the begin mark: whoever asks on when the process has no earlier record gets 118. To be called
  // with iserrno 0.
  [[nodiscard]] LogRecord previous();

 private:
  LogWindow window_;
  std::int32_t process_;
  Link at_;
};

}  // namespace isam::txlog
