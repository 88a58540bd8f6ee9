// pool: the buffers behind isam/pool/buffers.h.
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
#include "isam/base/errors.h"
#include "isam/pool/buffers.h"
#include "isam/pool/lruring.h"
#include "isam/pool/pagetable.h"

namespace isam {

inline constexpr std::int32_t kDataBlock = INT32_MIN;  // the top bit of a data block's number
inline constexpr std::size_t kMostAdded = 2048;        // buffers, more than one call changes
inline constexpr std::size_t kLongestRun = 40;         // blocks, more than the longest record takes

// Where a page stands in the order of a commit; the dictionary goes behind kFreeList.
enum class Turn : std::uint64_t {
  kLengthens,
  kFreeList,
  kGoingRecord,
  kNode,
  kRecord,
  kGivesUp,
  kGivenNumber
};

class Pool {
 public:
  Pool();
  Buffer* bfgetblk(std::int32_t block);
  Buffer* bfread(std::int32_t block);
  Buffer* bfgetclr(std::int32_t block);
  bool copy_data(std::int64_t offset, Bytes to, Bytes behind);
  void bfrelease(Buffer* buffer);
  int bfwrite(Buffer* buffer);
  int write_buffer(Buffer* buffer);
  void modified(Buffer* buffer);
  bool take_direct(std::int64_t offset, ConstBytes first, ConstBytes second);
  void write_direct_or_pool();
  int bfprocess(OpenPair& file, bool write);
  int bfcommit(OpenPair& file, const Dictionary& first, const Dictionary& last);
  int bfdiscard(OpenPair& file);
  void discard(OpenPair& file, std::int32_t first);
  void bfignor(OpenPair& file);
  // The descriptor of the file's data is about to be closed.
  void closing(const OpenPair& file) { data_window_.forget(file.datfd); }

 private:
  static constexpr std::int64_t kNotLengthened = INT64_MAX;
  static constexpr std::uint64_t kOutOfOrder = 0;  // for the time of a release

  // Where a page stands: descriptor, byte offset, length.
  struct Place {
    int fd;
    std::int64_t offset;
    std::size_t length;
    FileKind kind;
  };

  static Place bfmapaddr(const Buffer& buffer);
  // Idle, but among those that may not give their buffers up.
  static bool is_out_of_order(const Buffer& buffer) {
    return buffer.released == kOutOfOrder && (buffer.flags & kBusy) == 0;
  }
  void modified_out(Buffer* buffer);
  [[nodiscard]] bool add_buffers(std::size_t count);
  void put_in_order(Buffer* buffer);
  Buffer* oldest_that_may_go(LruRing& order);
  Buffer* oldest_of_all();
  Buffer* choose_victim();
  Buffer* victim();
  int spill(Buffer* buffer);
  void reuse(Buffer* buffer, std::int32_t block);
  const std::vector<Buffer*>& modified_pages(const OpenPair& file);
  void put_in_turn(const OpenPair& file);
  void reserve_before();
  int make_room(OpenPair& file);
  int remember(OpenPair& file, const Place& place);
  int write_over(OpenPair& file, const Place& place, const Byte* bytes);
  int write_noted(OpenPair& file, const Place& place, const Byte* bytes);
  int write_direct_noted(OpenPair& file);
  void write_back(OpenPair& file);
  Buffer* delayed_beside(const Buffer& buffer, int step) const;
  int write_run(OpenPair& file, std::size_t& at);
  int write_until(OpenPair& file, Turn last, std::size_t& at);
  int write_direct(OpenPair& file);
  [[nodiscard]] const Buffer* data_block(std::int64_t block) const;
  [[nodiscard]] bool only_in_file(std::int64_t offset, std::size_t size) const;
  int pool_direct();
  int write_in_order(OpenPair& file, const Dictionary& first, const Dictionary& last);
  bool load(Buffer& buffer);
  static common::FileMap& map_of(OpenPair& file, FileKind kind) {
    return kind == FileKind::kData ? file.data_map : file.index_map;
  }
  common::ReadAhead& window_of(FileKind kind) {
    return kind == FileKind::kData ? data_window_ : index_window_;
  }

  std::size_t nbuffs_ = 0;
  std::size_t most_buffers_ = 0;
  PageTable table_;
  LruRing nodes_;
  LruRing data_blocks_;
  std::uint64_t releases_ = 0;
  common::Arena<Buffer> buffs_;
  common::Arena<Byte> pages_;
  common::ReadAhead index_window_;
  common::ReadAhead data_window_;
  std::vector<Buffer*> to_write_;
  std::vector<Byte> run_;  // neighbouring pages on their way out
  // A page that a commit writes: its Turn in the upper half of the order, in the lower what lets
  // the highest block of a turn go first.
  struct InTurn {
    std::uint64_t order;
    Buffer* page;

    [[nodiscard]] Turn turn() const { return static_cast<Turn>(order >> 32); }
  };
  std::vector<InTurn> in_turn_;
  // What a commit has written over, to be written back should it fail.
  struct Overwritten {
    int fd;
    std::int64_t offset;
    ConstBytes bytes;
  };
  std::vector<Overwritten> overwritten_;  // has room for all
  std::size_t overwritten_used_ = 0;
  std::vector<Byte> before_;  // has room for all that the commit under way writes over
  std::size_t before_used_ = 0;
  std::int64_t index_size_before_ = kNotLengthened;  // of a file that it lengthens
  std::int64_t data_size_before_ = kNotLengthened;
};

inline Pool::Place Pool::bfmapaddr(const Buffer& buffer) {
  const OpenPair& file = *buffer.file;
  if (buffer.block < 0) {
    return {file.datfd, std::int64_t{buffer.block & INT32_MAX} * kPageSize, kPageSize,
            FileKind::kData};
  }
  const int node_bytes = file.idxsize + 1;
  return {file.idxfd, std::int64_t{buffer.block - 1} * node_bytes,
          static_cast<std::size_t>(node_bytes), FileKind::kIndex};
}

inline void Pool::modified_out(Buffer* buffer) {
  if ((buffer->flags & kModified) == 0) return;
  buffer->flags = static_cast<std::uint16_t>(buffer->flags & ~(kModified | kGivesUp));
  if (buffer->modified_previous != nullptr) {
    buffer->modified_previous->modified_next = buffer->modified_next;
  } else {
    buffer->file->modified = buffer->modified_next;
  }
  if (buffer->modified_next != nullptr) {
    buffer->modified_next->modified_previous = buffer->modified_previous;
  }
  if (is_out_of_order(*buffer)) put_in_order(buffer);
}

// Null before the first page is asked for.
extern std::unique_ptr<Pool> the_pool;
Pool& make_pool();
[[nodiscard]] inline Pool& pool() { return the_pool ? *the_pool : make_pool(); }

}  // namespace isam
