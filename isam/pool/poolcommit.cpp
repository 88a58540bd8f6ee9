// What a call changed of a file that other processes use goes to the file when the call ends.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "common/io.h"
#include "isam/pool/pool.h"

namespace isam {

namespace {

bool lengthens(const Buffer& node) { return node.block > node.file->nodes_before; }

Turn turn_of(const Buffer& page) {
  const bool removes = page.file->gives_number;
  if (page.block < 0) return removes ? Turn::kGoingRecord : Turn::kRecord;
  if (lengthens(page)) return Turn::kLengthens;
  if ((page.flags & kGivesUp) != 0) return Turn::kGivesUp;
  if (page.level == kFreeLevel && page.node_type >= kIndexFreeNode) {
    return removes && page.node_type == kServiceNode ? Turn::kGivenNumber : Turn::kFreeList;
  }
  return Turn::kNode;
}

}  // namespace

// The pages that go out, in their order.
void Pool::put_in_turn(const OpenPair& file) {
  in_turn_.clear();
  for (Buffer* at = file.modified; at != nullptr; at = at->modified_next) {
    if ((at->flags & kBusy) != 0) continue;
    const std::uint64_t within = static_cast<std::uint32_t>(~at->block);
    in_turn_.push_back({static_cast<std::uint64_t>(turn_of(*at)) << 32 | within, at});
  }
  std::ranges::sort(in_turn_, {}, &InTurn::order);
}

// Room to keep all bytes that will be written over.
void Pool::reserve_before() {
  if (overwritten_.size() < in_turn_.size() + 2) overwritten_.resize(2 * in_turn_.size() + 2);
  const std::size_t most = in_turn_.size() * kMaxNodeSize + sizeof(Dictionary);
  if (before_.size() < most) before_.resize(2 * most);
}

// Keeps the bytes that stand where a commit will write. Those past the end of a file as it was go
// when that is cut: 0 or -1.
inline int Pool::remember(OpenPair& file, const Place& place) {
  const bool index = place.kind == FileKind::kIndex;
  const std::int64_t left = (index ? index_size_before_ : data_size_before_) - place.offset;
  if (left <= 0) return 0;
  const std::size_t length = std::min(place.length, static_cast<std::size_t>(left));
  Byte* const to = before_.data() + before_used_;
  const ssize_t got = map_of(file, place.kind).read(place.fd, {to, length}, place.offset);
  if (got < 0) return failed_system(errno, Operation::kRead, place.kind);
  overwritten_[overwritten_used_++] = {place.fd, place.offset, {to, static_cast<std::size_t>(got)}};
  before_used_ += length;
  return 0;
}

inline int Pool::write_over(OpenPair& file, const Place& place, const Byte* bytes) {
  window_of(place.kind).overwritten(place.fd, place.offset, place.length);
  if (common::write_at(place.fd, {bytes, place.length}, place.offset) != 0) {
    return failed_system(errno, Operation::kWrite, place.kind);
  }
  map_of(file, place.kind).written(place.offset + static_cast<std::int64_t>(place.length));
  return 0;
}

inline int Pool::write_noted(OpenPair& file, const Place& place, const Byte* bytes) {
  return remember(file, place) != 0 ? -1 : write_over(file, place, bytes);
}

// As far as the files can be written: what a commit wrote before it failed is taken back.
void Pool::write_back(OpenPair& file) {
  while (overwritten_used_ > 0) {
    const auto& [fd, offset, bytes] = overwritten_[--overwritten_used_];
    static_cast<void>(common::write_at(fd, bytes, offset));
  }
  const auto cut = [](int fd, std::int64_t size, common::FileMap& map) {
    if (size == kNotLengthened) return;
    common::cut_file(fd, size);
    map.forget();
  };
  cut(file.idxfd, index_size_before_, file.index_map);
  cut(file.datfd, data_size_before_, file.data_map);
  file.data_extent.bytes = 0;
}

// Where pages will lengthen the files; data blocks do so with zero bytes before anything else is
// written: absent records, whatever comes between this and the records. 0 or -1.
int Pool::make_room(OpenPair& file) {
  if (!in_turn_.empty() && in_turn_.front().turn() == Turn::kLengthens) {
    std::int64_t size = 0;
    if (common::find_size(file.idxfd, size) != 0) {
      return failed_system(errno, Operation::kRead, FileKind::kIndex);
    }
    index_size_before_ = size;
  }
  std::int64_t first = INT32_MAX;  // data blocks
  std::int64_t last = -1;
  for (const auto& [order, page] : in_turn_) {
    if (page->block >= 0) continue;
    first = std::min<std::int64_t>(first, page->block & INT32_MAX);
    last = std::max<std::int64_t>(last, page->block & INT32_MAX);
  }
  const std::int64_t to = (last + 1) * kPageSize;
  if (to <= file.data_extent.bytes) return 0;
  if (common::find_size(file.datfd, file.data_extent.bytes) != 0) {
    return failed_system(errno, Operation::kRead, FileKind::kData);
  }
  if (to <= file.data_extent.bytes) return 0;
  data_size_before_ = file.data_extent.bytes;
  const std::int64_t from = std::max(first * kPageSize, data_size_before_);
  if (common::write_zeros(file.datfd, from, to) != 0) {
    return failed_system(errno, Operation::kWrite, FileKind::kData);
  }
  file.data_extent.bytes = to;
  return 0;
}

// Writes the page at `at` together with the data blocks right before it: 0 or -1.
int Pool::write_run(OpenPair& file, std::size_t& at) {
  const std::size_t begin = at;
  const auto page_at = [this](std::size_t i) { return in_turn_[i].page; };
  std::size_t end = begin + 1;
  while (page_at(begin)->block < 0 && end < in_turn_.size() && end - begin <= kLongestRun &&
         std::int64_t{page_at(end)->block} == std::int64_t{page_at(end - 1)->block} - 1) {
    ++end;
  }
  const Buffer* const first = page_at(end - 1);
  Place place = bfmapaddr(*first);
  const Byte* bytes = first->page;
  if (end - begin > 1) {
    place.length = (end - begin) * kPageSize;
    run_.resize(place.length);
    for (std::size_t i = begin; i < end; ++i) {
      std::memcpy(run_.data() + (end - 1 - i) * kPageSize, page_at(i)->page, kPageSize);
    }
    bytes = run_.data();
  }
  if (write_noted(file, place, bytes) != 0) return -1;
  for (; at < end; ++at) modified_out(page_at(at));
  return 0;
}

// Writes from `at` on what has its turn up to `last`: 0 or -1.
int Pool::write_until(OpenPair& file, Turn last, std::size_t& at) {
  while (at < in_turn_.size() && in_turn_[at].turn() <= last) {
    if (write_run(file, at) != 0) return -1;
  }
  return 0;
}

// What is written past the pool; what stood there was read when it was taken.
int Pool::write_direct_noted(OpenPair& file) {
  const DirectWrite& direct = file.direct;
  if (direct.bytes.empty()) return 0;
  overwritten_[overwritten_used_++] = {file.datfd, direct.offset, direct.before};
  return write_direct(file);
}

int Pool::write_in_order(OpenPair& file, const Dictionary& first, const Dictionary& last) {
  put_in_turn(file);
  reserve_before();
  const Place dictionary{file.idxfd, 0, kDictionarySize, FileKind::kIndex};
  std::size_t at = 0;
  if (make_room(file) != 0 || write_until(file, Turn::kFreeList, at) != 0 ||
      write_noted(file, dictionary, first.raw) != 0) {
    return -1;
  }
  const Turn records = file.gives_number ? Turn::kGoingRecord : Turn::kRecord;
  if (write_until(file, records, at) != 0 || write_direct_noted(file) != 0 ||
      write_until(file, Turn::kGivenNumber, at) != 0) {
    return -1;
  }
  const bool differs = std::memcmp(first.raw, last.raw, sizeof last.raw) != 0;
  return differs ? write_over(file, dictionary, last.raw) : 0;
}

int Pool::bfcommit(OpenPair& file, const Dictionary& first, const Dictionary& last) {
  const FailedWrite lost = std::exchange(file.failed_write, {});
  overwritten_used_ = 0;
  before_used_ = 0;
  index_size_before_ = data_size_before_ = kNotLengthened;
  bool written = false;
  try {
    written = lost.error == 0 && write_in_order(file, first, last) == 0;
  } catch (const std::bad_alloc&) {
    failed(kNoMemory);
  }
  if (written) return 0;
  if (lost.error != 0) {
    iserrno = lost.error;
    iserrio = lost.place;
  }
  write_back(file);
  file.failed_write = {};
  file.direct.bytes.clear();
  while (file.modified != nullptr) modified_out(file.modified);
  bfignor(file);
  return -1;
}

}  // namespace isam
