// coldreads: which bytes around a single read of a file the system should read, too, when the read
// has waited for the disk.
//
// The files are advised as random access, so that a page that is not in memory is read alone. To
// read what lies around it as well costs little more, and spares reads that follow their waiting:
// by and by of all the file.
//
// Needs   note() after each read that is_due() has said yes to
// Keeps   while nothing waits, only one read of kLooksAt is looked at; nothing is asked for that a
//         read has not waited beside; a read that waits right behind what was asked for last asks
//         for twice as much, up to kMostAsked
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace common {

class ColdReads {
 public:
  struct Range {
    std::int64_t start = 0;
    std::int64_t length = 0;  // 0: nothing is to be asked for
  };

  // Whether the next read is to be looked at.
  [[nodiscard]] bool is_due() { return --reads_left_ <= 0; }

  // A read at `offset` of a file of so many bytes was looked at and took so long: what to ask for.
  [[nodiscard]] Range note(std::int64_t offset, std::int64_t file_size,
                           std::chrono::nanoseconds taken) {
    constexpr auto kWithoutDisk = std::chrono::microseconds(20);
    const bool has_waited = taken > kWithoutDisk;
    looks_left_ = has_waited ? kPatience : std::max(looks_left_ - 1, 0);
    reads_left_ = looks_left_ > 0 ? 1 : kLooksAt;
    if (!has_waited) return {};
    const std::int64_t start = offset - offset % kLeastAsked;
    const bool goes_on = asked_.length > 0 && start == asked_.start + asked_.length;
    const std::int64_t wanted = goes_on ? std::min(2 * asked_.length, kMostAsked) : kLeastAsked;
    asked_ = {start, std::max<std::int64_t>(std::min(wanted, file_size - start), 0)};
    return asked_;
  }

 private:
  static constexpr int kLooksAt = 16;
  static constexpr int kPatience = 64;  // reads in a row that do not wait
  static constexpr std::int64_t kLeastAsked = std::int64_t{64} * 1024;
  static constexpr std::int64_t kMostAsked = std::int64_t{1} << 20;

  int reads_left_ = 1;  // until one is looked at
  int looks_left_ = 0;  // 0: nothing waits
  Range asked_;         // last
};

}  // namespace common
