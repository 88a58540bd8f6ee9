// sorter: sorts more fixed-size entries than memory should hold.
//
// Entries are compared as plain bytes over their first key_size bytes, or by a function; equal
// ones keep the order in which they were added. What does not fit the memory limit is spilled as
// sorted runs to one unnamed temporary file, and merged on the way out.
//
//   Sorter sorter({.entry_size = 12, .key_size = 12, .memory = 64 << 20, .folder = "."});
//   sorter.add(entry);                                // 0, or -1 with errno
//   if (sorter.finish() != 0) return failed();
//   while (const Byte* entry = sorter.next()) ...     // valid until the next call
//   if (sorter.error() != 0) return failed();
//
// Keeps   memory near the limit. It goes beyond it by up to 1 MiB for the block being filled and
//         1 MiB while a run is spilled, and as far as 1024 entries, or 64 KiB of each run while
//         merging, need it
// Throws  std::bad_alloc
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "common/holders.h"

namespace common {

class Sorter {
 public:
  struct Shape {
    std::size_t entry_size;
    std::size_t key_size;  // leading bytes of an entry that decide the order
    std::size_t memory;    // the limit, in bytes
    std::string folder;    // where the temporary file goes
    // Decides instead of the bytes when set: gives a number below 0, 0 or above 0.
    std::function<int(const Byte* a, const Byte* b)> order;
  };

  explicit Sorter(Shape shape);
  ~Sorter();
  Sorter(const Sorter&) = delete;
  Sorter& operator=(const Sorter&) = delete;

  // 0, or -1 with errno when a full run could not be spilled.
  [[nodiscard]] int add(const Byte* entry);
  // Ends the adding; entries come out from now on. 0, or -1 with errno when a run could not be
  // spilled or read back.
  [[nodiscard]] int finish();
  // The next entry in order; null at the end or on a failure.
  [[nodiscard]] const Byte* next();
  // Lets the entries come out once more, from the first on; only after finish().
  void rewind();
  // errno of a failed read of the temporary file; 0 for none.
  [[nodiscard]] int error() const { return error_; }

 private:
  // An entry by eight bytes of its key as a number, which settle most comparisons.
  struct Reference {
    std::uint64_t prefix;
    const Byte* entry;
  };
  struct Run;

  [[nodiscard]] std::uint64_t prefix_of(const Byte* entry) const;
  [[nodiscard]] int compare(const Byte* a, const Byte* b) const;
  [[nodiscard]] std::size_t shared_bytes() const;
  [[nodiscard]] const Byte* entry_at(std::size_t i) const {
    return blocks_[i / entries_per_block_].get() + i % entries_per_block_ * shape_.entry_size;
  }
  void sort_references();
  void sort_by_prefix();
  void sort_equal_prefixes();
  [[nodiscard]] int spill();
  [[nodiscard]] int open_spill_file();
  void start_merge();
  void fill_heap();
  bool refill(Run& run);
  [[nodiscard]] bool before(const Run& a, const Run& b) const;
  void sift_down(std::size_t at);

  Shape shape_;
  std::size_t entries_per_block_;
  std::size_t most_entries_;
  std::vector<std::unique_ptr<Byte[]>> blocks_;
  std::size_t count_ = 0;  // entries in the blocks
  std::vector<Reference> references_;
  std::vector<Reference> scattered_;  // the other half of the radix sort
  std::size_t skip_ = 0;              // leading bytes that all keys of the run share
  std::size_t position_ = 0;          // in references_, when nothing was spilled

  FileHold spill_file_;
  std::int64_t spill_end_ = 0;
  std::vector<std::unique_ptr<Run>> runs_;
  std::vector<Run*> heap_;  // the run with the least entry first
  bool advance_ = false;    // the least run's entry has been given out
  int error_ = 0;
};

}  // namespace common
