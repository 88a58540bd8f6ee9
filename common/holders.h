// holders: a descriptor that is closed when its holder leaves scope.
//
//   FileHold fd{open_file(path, O_RDONLY)};
//   if (!fd) return failed();
//   filep->index.fd = fd.release();    // kept beyond the scope
#pragma once

#include <utility>

#include "common/io.h"

namespace common {

class FileHold {
 public:
  FileHold() = default;
  explicit FileHold(int fd) : fd_(fd) {}
  FileHold(FileHold&& other) noexcept : fd_(other.release()) {}
  // What this one held is closed with `other`.
  FileHold& operator=(FileHold&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileHold() {
    if (fd_ >= 0) close_file(fd_);
  }

  explicit operator bool() const { return fd_ >= 0; }
  [[nodiscard]] int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace common
