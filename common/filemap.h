// filemap: reads of one file through a mapping, which cost no system call.
//
// Gives   read(): the same bytes and the same failures as read_at()
// Keeps   the mapping shows what any process has written, at once
//         (while reads wait for a disk, the system is asked for what lies around them, too)
// Never   maps a file that is read a few times only; uses the mapping while a test has put its own
//         reading in place of the system's; lets a disk error, or a file that was cut off, end the
//         process: the page that cannot be had is told by a SIGBUS, which is taken here, and the
//         bytes are asked for again by a call that can fail. A SIGBUS from elsewhere goes to the
//         handler of before. (One that the program puts in place later gets all of them)
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "common/bytes.h"
#include "common/coldreads.h"
#include "common/io.h"

namespace common {

class FileMap {
 public:
  FileMap() = default;
  FileMap(const FileMap&) = delete;
  FileMap& operator=(const FileMap&) = delete;
  FileMap& operator=(FileMap&& other) noexcept;  // the two exchange their files
  ~FileMap() { forget(); }

  // Bytes transferred, fewer than asked for only at the end of the file; -1 with errno. `fd` is the
  // same at each call until forget().
  [[nodiscard]] ssize_t read(int fd, Bytes to, std::int64_t offset) {
    const auto size = static_cast<ssize_t>(to.size());
    if (!covers(to.size(), offset)) return call(fd, to, offset);
    const bool copied = cold_.is_due() ? look_at_copy(fd, to, offset) : copy(to, offset);
    return copied ? size : call(fd, to, offset);
  }
  // Lets `copy` copy as it likes out of the bytes that the file is known to have, which it is
  // given; none where the file is not mapped. False when a page of them was missing: then what it
  // copied is worth nothing.
  template <typename Copy>
  [[nodiscard]] bool read_by(Copy copy) {
    const bool usable = system_calls().pread == ::pread;
    const ConstBytes all{pages_, usable ? static_cast<std::size_t>(std::min(known_, mapped_)) : 0};
    begin_copy(all);
    copy(all);
    return end_copy();
  }
  // The bytes as they are now, to be had only where that costs no system call: false elsewhere.
  [[nodiscard]] bool look(Bytes to, std::int64_t offset) {
    return covers(to.size(), offset) && copy(to, offset);
  }
  // Whether the file has these bytes; only where that costs no system call: false elsewhere.
  [[nodiscard]] bool has(ConstBytes bytes, std::int64_t offset);
  // Asks how long the file is by now, and maps it where the mapping does not reach so far: for
  // reads that will be many.
  void look_again(int fd);
  // Whether a read of these bytes costs no system call.
  [[nodiscard]] bool covers(std::size_t length, std::int64_t offset) const {
    return offset + static_cast<std::int64_t>(length) <= std::min(known_, mapped_) &&
           system_calls().pread == ::pread;
  }
  // Has bytes that will be asked for soon in the processor's caches by then.
  void expect(std::size_t length, std::int64_t offset) const {
    if (covers(length, offset)) prefetch(pages_ + offset, length);
  }
  // What is asked for around copies by read_by(), and of how long a file.
  [[nodiscard]] ColdReads& cold_reads() { return cold_; }
  [[nodiscard]] std::int64_t known_size() const { return known_; }
  // This process has written up to `end`: there the file has bytes.
  void written(std::int64_t end) { known_ = std::max(known_, end); }
  // This process has cut the file: there it ends now.
  void cut(std::int64_t end) { known_ = std::min(known_, end); }
  // The descriptor is about to be closed, or what the file has is not known any more.
  void forget();

 private:
  static void begin_copy(ConstBytes from);
  [[nodiscard]] bool end_copy();
  [[nodiscard]] bool copy(Bytes to, std::int64_t offset);
  [[nodiscard]] bool look_at_copy(int fd, Bytes to, std::int64_t offset);
  [[nodiscard]] ssize_t call(int fd, Bytes to, std::int64_t offset);
  void map(int fd);

  static constexpr int kReadsBeforeMapping = 64;

  const Byte* pages_ = nullptr;
  std::int64_t mapped_ = 0;  // bytes of address space, perhaps more than the file has
  std::int64_t known_ = 0;   // bytes that the file was seen to have
  int reads_ = 0;            // beyond the mapping
  ColdReads cold_;
  bool usable_ = true;  // false: it is not mapped, nor will it be before forget()
};

}  // namespace common
