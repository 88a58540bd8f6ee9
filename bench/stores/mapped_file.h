// mapped_file: a file that is written by calls and read through a mapping.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <span>
#include <system_error>

#include "common/holders.h"

namespace bench {

inline void check_system(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

class MappedFile {
 public:
  explicit MappedFile(const std::filesystem::path& path)
      : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
    check_system(static_cast<bool>(fd_), "open");
    map();
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  ~MappedFile() { unmap(); }

  [[nodiscard]] int fd() const { return fd_.get(); }
  // What the file had when it was mapped last.
  [[nodiscard]] std::span<const char> bytes() const { return {bytes_, size_}; }

  void write(std::span<const char> from, std::size_t offset) const {
    const ssize_t put = ::pwrite(fd(), from.data(), from.size(), static_cast<off_t>(offset));
    check_system(put == static_cast<ssize_t>(from.size()), "pwrite");
  }
  void map() {
    unmap();
    size_ = static_cast<std::size_t>(::lseek(fd_.get(), 0, SEEK_END));
    if (size_ == 0) return;
    void* const bytes = ::mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd_.get(), 0);
    check_system(bytes != MAP_FAILED, "mmap");
    bytes_ = static_cast<const char*>(bytes);
  }

 private:
  void unmap() {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): mapped to be read only
    if (bytes_ != nullptr) ::munmap(const_cast<char*>(bytes_), size_);
    bytes_ = nullptr;
  }

  common::FileHold fd_;
  const char* bytes_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace bench
