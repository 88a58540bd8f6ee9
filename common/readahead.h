// readahead: a window that turns a run of small sequential reads of a file into large ones.
//
// The window is over the file that was read last. A read of another file moves it there.
//
// Gives   read(): the same bytes and the same failures as read_at(), at a fraction of the calls
//         while reads go forward through the file
// Keeps   the window never serves bytes that this process has overwritten: writers call
//         overwritten(), and whoever learns that another process wrote, or closes the file, calls
//         forget(). Once the end of the file was met, what lies behind it costs no call
// Never   reads ahead on random access, nor reports a failure that lies beyond the bytes asked for
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <memory>

#include "common/bytes.h"
#include "common/filemap.h"

namespace common {

class ReadAhead {
 public:
  // Bytes transferred, fewer than asked for only at the end of the file; -1 with errno. What the
  // window does not cover is read through `map`, the file's own.
  [[nodiscard]] ssize_t read(int fd, FileMap& map, Bytes to, std::int64_t offset);

  // This process has written `length` bytes at `offset`.
  void overwritten(int fd, std::int64_t offset, std::size_t length) {
    if (fd != fd_) return;
    const std::int64_t written_end = offset + static_cast<std::int64_t>(length);
    if (end_ != kUnknown) end_ = std::max(end_, written_end);
    if (offset < offset_ + static_cast<std::int64_t>(length_) && written_end > offset_) length_ = 0;
  }
  void forget(int fd);

 private:
  [[nodiscard]] bool covers(int fd, std::int64_t offset, std::size_t length) const;
  void fill(int fd, std::int64_t offset);

  static constexpr std::int64_t kUnknown = INT64_MAX;
  static constexpr std::size_t kWindow = std::size_t{64} * 1024;
  static constexpr int kRunBeforeFilling = 2;  // forward reads in a row; the last reads ahead
  static constexpr std::int64_t kReach = 4;    // times its length that a forward read skips at most

  std::unique_ptr<Byte[]> window_;
  int fd_ = -1;
  std::int64_t offset_ = 0;      // of the window in the file
  std::size_t length_ = 0;       // bytes that the window holds
  std::int64_t end_ = kUnknown;  // of the file, once a read has come to it
  std::int64_t expected_ = 0;    // where the last read ended
  int run_ = 0;                  // forward reads in a row
};

}  // namespace common
