// pool: the buffers behind isam/buffers.h.
//
// pool.cpp finds, reads and reuses buffers, poolwrite.cpp writes what was changed, poolcommit.cpp
// what a call changed of a file that other processes use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "common/arena.h"
#include "common/readahead.h"
#include "isam/buffers.h"
#include "isam/errors.h"
#include "isam/pagetable.h"
#include "isam/releaseorder.h"

namespace isam {

inline constexpr std::int32_t kDataBlock = INT32_MIN;  // the top bit of a data block's number
inline constexpr std::size_t kMostAdded = 2048;        // buffers, more than one call changes
inline constexpr std::size_t kLongestRun = 40;         // blocks, more than the longest record takes

enum class Turn : std::uint64_t;  // in the order of a commit

class Pool {
 public:
  Pool();
  Buffer* bfgetblk(std::int32_t block);
  Buffer* bfread(std::int32_t block);
  Buffer* bfgetclr(std::int32_t block);
  bool copy_data(std::int64_t offset, Bytes to, Bytes behind);
  void bfrelease(Buffer* buffer);
  int bfwrite(Buffer* buffer);
  int write_delayed(Buffer* buffer);
  void modified(Buffer* buffer);
  bool take_direct(std::int64_t offset, ConstBytes first, ConstBytes second);
  void settle_direct();
  int bfprocess(FileRecord& file, bool write);
  int bfcommit(FileRecord& file, const Dictionary& first, const Dictionary& last);
  static int bfdiscard(FileRecord& file);
  static void discard(FileRecord& file, std::int32_t first);
  void bfignor(FileRecord& file);
  // The descriptor of the file's data is about to be closed.
  void closing(const FileRecord& file) { data_window_.forget(file.datfd); }

 private:
  // Where a page stands: descriptor, byte offset, length.
  struct Place {
    int fd;
    std::int64_t offset;
    std::size_t length;
    FileKind kind;
  };

  static Place bfmapaddr(const Buffer& buffer);
  static void modified_out(Buffer* buffer);
  [[nodiscard]] bool add_buffers(std::size_t count);
  void put_in_order(Buffer* buffer);
  Buffer* least_wanted();
  Buffer* choose_victim();
  Buffer* victim();
  int spill(Buffer* buffer);
  void reuse(Buffer* buffer, std::int32_t block);
  const std::vector<Buffer*>& modified_pages(const FileRecord& file);
  int make_room(FileRecord& file);
  int remember(FileRecord& file, const Place& place);
  int write_noted(FileRecord& file, const Place& place, const Byte* bytes);
  void write_back(FileRecord& file);
  Buffer* delayed_beside(const Buffer& buffer, int step) const;
  int write_run(FileRecord& file, std::size_t& at);
  int write_until(FileRecord& file, Turn last, std::size_t& at);
  int write_direct(FileRecord& file);
  [[nodiscard]] bool only_in_file(std::int64_t offset, std::size_t size) const;
  int pool_direct();
  int write_in_order(FileRecord& file, const Dictionary& first, const Dictionary& last);
  bool load(Buffer& buffer);
  common::ReadAhead& window_of(FileKind kind) {
    return kind == FileKind::kData ? data_window_ : index_window_;
  }

  std::size_t nbuffs_ = 0;
  std::size_t most_buffers_ = 0;
  PageTable table_;
  ReleaseOrder nodes_;
  ReleaseOrder data_blocks_;
  std::uint64_t releases_ = 0;
  common::Arena<Buffer> buffs_;
  common::Arena<Byte> pages_;
  common::ReadAhead index_window_;
  common::ReadAhead data_window_;
  std::vector<Buffer*> to_write_;
  std::vector<Byte> run_;  // neighbouring pages on their way out
  // What a commit has written over, to be written back should it fail.
  struct Overwritten {
    Place place;
    std::size_t at;  // in before_
  };
  std::vector<Overwritten> overwritten_;
  std::vector<Byte> before_;
  std::size_t before_used_ = 0;
  std::int64_t index_size_before_ = -1;  // of a file that it lengthens, else -1
  std::int64_t data_size_before_ = -1;
};

// Null before the first page is asked for.
extern std::unique_ptr<Pool> the_pool;
[[nodiscard]] Pool& pool();

}  // namespace isam
