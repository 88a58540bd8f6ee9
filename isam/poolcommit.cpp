// What a call changed of a file that other processes use goes to the file when the call ends.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "common/io.h"
#include "isam/files.h"
#include "isam/pool.h"

namespace isam {

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

// Keeps the bytes that stand where a commit will write. Those past the end of a file as it was go
// when that is cut: 0 or -1.
int Pool::remember(FileRecord& file, const Place& place) {
  const bool index = place.kind == FileKind::kIndex;
  const std::int64_t size_before = index ? index_size_before_ : data_size_before_;
  std::size_t length = place.length;
  if (size_before >= 0) {
    if (place.offset >= size_before) return 0;
    length = static_cast<std::size_t>(
        std::min(static_cast<std::int64_t>(length), size_before - place.offset));
  }
  if (before_.size() < before_used_ + length) before_.resize(2 * (before_used_ + length));
  common::FileMap& map = index ? file.index_map : file.data_map;
  const Bytes to{before_.data() + before_used_, length};
  const ssize_t got = map.read(place.fd, to, place.offset);
  if (got < 0) return failed_system(errno, Operation::kRead, place.kind);
  overwritten_.push_back({place, before_used_});
  overwritten_.back().place.length = static_cast<std::size_t>(got);
  before_used_ += static_cast<std::size_t>(got);
  return 0;
}

int Pool::write_noted(FileRecord& file, const Place& place, const Byte* bytes) {
  if (remember(file, place) != 0) return -1;
  window_of(place.kind).overwritten(place.fd, place.offset, place.length);
  if (common::write_at(place.fd, {bytes, place.length}, place.offset) == 0) return 0;
  return failed_system(errno, Operation::kWrite, place.kind);
}

// As far as the files can be written: what a commit wrote before it failed is taken back.
void Pool::write_back(FileRecord& file) {
  for (; !overwritten_.empty(); overwritten_.pop_back()) {
    const auto& [place, at] = overwritten_.back();
    static_cast<void>(
        common::write_at(place.fd, {before_.data() + at, place.length}, place.offset));
  }
  if (index_size_before_ >= 0) common::cut_file(file.idxfd, index_size_before_);
  if (data_size_before_ >= 0) common::cut_file(file.datfd, data_size_before_);
  file.data_bytes = 0;
}

// Where pages will lengthen the files; data blocks do so with zero bytes before anything else is
// written: absent records, whatever comes between this and the records. 0 or -1.
int Pool::make_room(FileRecord& file) {
  index_size_before_ = data_size_before_ = -1;
  if (!to_write_.empty() && turn_of(*to_write_.front()) == Turn::kLengthens &&
      common::find_size(file.idxfd, index_size_before_) != 0) {
    return failed_system(errno, Operation::kRead, FileKind::kIndex);
  }
  std::int64_t from = INT64_MAX;
  std::int64_t to = 0;
  for (const Buffer* page : to_write_) {
    if (page->block >= 0) continue;
    const std::int64_t offset = bfmapaddr(*page).offset;
    from = std::min(from, offset);
    to = std::max(to, offset + std::int64_t{kPageSize});
  }
  if (to <= file.data_bytes) return 0;
  if (common::find_size(file.datfd, file.data_bytes) != 0) {
    return failed_system(errno, Operation::kRead, FileKind::kData);
  }
  if (to <= file.data_bytes) return 0;
  data_size_before_ = file.data_bytes;
  static constexpr Byte kZeros[kPageSize] = {};
  for (from = std::max(from, data_size_before_); from < to;) {
    const auto count = std::min<std::int64_t>(to - from, kPageSize);
    if (common::write_at(file.datfd, {kZeros, static_cast<std::size_t>(count)}, from) != 0) {
      return failed_system(errno, Operation::kWrite, FileKind::kData);
    }
    from += count;
  }
  file.data_bytes = to;
  return 0;
}

// Writes the page at `at` together with the data blocks right before it: 0 or -1.
int Pool::write_run(FileRecord& file, std::size_t& at) {
  Buffer* const last = to_write_[at++];
  std::size_t end = at;
  while (last->block < 0 && end < to_write_.size() && end - at < kLongestRun &&
         std::int64_t{to_write_[end]->block} == std::int64_t{to_write_[end - 1]->block} - 1) {
    ++end;
  }
  Buffer* const first = to_write_[end - 1];
  Place place = bfmapaddr(*first);
  const Byte* bytes = first->page;
  if (end != at) {
    place.length = (end - at + 1) * kPageSize;
    run_.resize(place.length);
    for (std::size_t i = at - 1; i < end; ++i) {
      std::memcpy(run_.data() + (end - 1 - i) * kPageSize, to_write_[i]->page, kPageSize);
    }
    bytes = run_.data();
  }
  if (write_noted(file, place, bytes) != 0) return -1;
  for (std::size_t i = at - 1; i < end; ++i) modified_out(to_write_[i]);
  at = end;
  return 0;
}

// Writes from `at` on what has its turn up to `last`: 0 or -1.
int Pool::write_until(FileRecord& file, Turn last, std::size_t& at) {
  while (at < to_write_.size() && turn_of(*to_write_[at]) <= last) {
    if (write_run(file, at) != 0) return -1;
  }
  return 0;
}

int Pool::write_in_order(FileRecord& file, const Dictionary& first, const Dictionary& last) {
  modified_pages(file);
  const auto key = [&](const Buffer* page) {
    // Within a turn the highest block goes first.
    return static_cast<std::uint64_t>(turn_of(*page)) << 32 |
           static_cast<std::uint32_t>(~page->block);
  };
  std::ranges::sort(to_write_, {}, key);
  const Place dictionary{file.idxfd, 0, kDictionarySize, FileKind::kIndex};
  const Place direct{file.datfd, file.direct.offset, file.direct.bytes.size(), FileKind::kData};
  std::size_t at = 0;
  if (make_room(file) != 0 || write_until(file, Turn::kFreeList, at) != 0 ||
      write_noted(file, dictionary, first.raw) != 0) {
    return -1;
  }
  const Turn records = file.gives_number ? Turn::kGoingRecord : Turn::kRecord;
  if (write_until(file, records, at) != 0) return -1;
  if (direct.length > 0 && (remember(file, direct) != 0 || write_direct(file) != 0)) return -1;
  if (write_until(file, Turn::kGivenNumber, at) != 0) return -1;
  const bool differs = std::memcmp(first.raw, last.raw, sizeof last.raw) != 0;
  return differs ? write_noted(file, dictionary, last.raw) : 0;
}

int Pool::bfcommit(FileRecord& file, const Dictionary& first, const Dictionary& last) {
  const FailedWrite lost = std::exchange(file.failed_write, {});
  overwritten_.clear();
  before_used_ = 0;
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
