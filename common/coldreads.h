// coldreads: which bytes of a file the system should read beside those that reads have waited for.
//
// The files are advised as random access, so that a page that is not in memory is read alone. To
// read what lies around it as well costs little more, and spares later reads their waiting. Nobody
// knows how many reads will come. So what is asked for around each of them depends on how much of
// the file they have asked for already: little while that is a small part, and the more the more it
// is, until the file is read in large pieces. Reads that stop at any time have made the system read
// what costs a small multiple of what they needed; those that go on soon find all in memory.
//
// Needs   note() after each single read that is_due() has said yes to
// Keeps   while nothing waits, only one read of kLooksAt is looked at; nothing is asked for that a
//         read has not waited beside. Of a file that does not stay in memory nothing
//         is asked for again before as many reads have waited as it has pieces; of one that is
//         larger than half the memory nothing but what is needed
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/byterange.h"

namespace common {

// Has the system read these bytes of a file, and does not wait for them.
void ask_system_for(int fd, ByteRange range);

// Whether what was done since it was made, in this thread, has waited for a disk: it took a while,
// and a page that it touched was not in memory. `faults` keeps the count of such pages for the next
// one.
class DiskWait {
 public:
  [[nodiscard]] bool seen(long& faults) const {
    constexpr auto kWithoutDisk = std::chrono::microseconds(20);
    return Clock::now() - start_ > kWithoutDisk && has_new_faults(faults);
  }

 private:
  using Clock = std::chrono::steady_clock;
  static bool has_new_faults(long& faults);

  Clock::time_point start_ = Clock::now();
};

class ColdReads {
 public:
  static constexpr std::int64_t kLeastAsked = std::int64_t{64} * 1024;
  static constexpr std::int64_t kMostAsked = std::int64_t{2} << 20;

  // Whether the next single read is to be looked at.
  [[nodiscard]] bool is_due() { return --reads_left_ <= 0; }

  // A read at `offset` of a file of so many bytes was looked at: what to ask for. A read that waits
  // right behind what was asked for last asks for twice as much.
  [[nodiscard]] ByteRange note(std::int64_t offset, std::int64_t file_size, bool has_waited);

  // What to ask for so that these bytes are in memory: at first just them; nothing where that was
  // asked for before.
  [[nodiscard]] ByteRange around(ByteRange needed, std::int64_t file_size);

  // Nothing has waited for a while: what was asked for then may have left the memory.
  void begin_anew();

  long faults = 0;  // for DiskWait

 private:
  [[nodiscard]] std::int64_t window(std::int64_t file_size) const;
  [[nodiscard]] ByteRange around(ByteRange needed, std::int64_t file_size, std::int64_t least);
  [[nodiscard]] ByteRange not_asked(ByteRange needed, ByteRange wanted, std::int64_t file_size);

  // A prime number: an operation makes several reads, and always the same one of them waits.
  static constexpr int kLooksAt = 17;
  static constexpr int kPatience = 1024;  // reads in a row that do not wait

  int reads_left_ = 1;           // until one is looked at
  int looks_left_ = 0;           // 0: nothing waits
  ByteRange last_;               // that a single read has asked for
  std::int64_t total_ = 0;       // bytes asked for
  std::vector<bool> are_asked_;  // pieces of kLeastAsked bytes
  std::size_t gone_ = 0;         // reads that have waited for one of them all the same
};

}  // namespace common
