#include "isam/pool/writeorder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "common/io.h"
#include "isam/pool/nodechain.h"
#include "isam/pool/pool.h"

namespace isam {
namespace {

constexpr std::size_t kFewPages = 16;    // to be sorted
constexpr std::size_t kLongestRun = 41;  // blocks, more than the longest record takes

Place place_of_dictionary(const OpenPair& file) {
  return {file.index.fd, 0, kDictionarySize, FileKind::kIndex};
}

// Whether a node is one that the call has added to the index file.
bool lengthens(const Buffer& node) { return node.block > node.file->call.nodes_before; }

// `gives_number` is set by a delete.
WriteStep step_of_records(const OpenPair& file) {
  return file.call.gives_number ? WriteStep::kRecordsGoing : WriteStep::kRecords;
}

WriteStep step_of(const Buffer& page) {
  // Data blocks have the top bit of their number set.
  if (page.block < 0) return step_of_records(*page.file);
  if (lengthens(page)) return WriteStep::kNewNodes;
  if ((page.flags & kGivesUp) != 0) return WriteStep::kStorageGivenUp;
  const bool is_list_node = page.level == kFreeLevel && page.node_type >= kIndexFreeNode;
  if (!is_list_node) return WriteStep::kNodes;
  const bool lists_records = page.node_type == kServiceNode;
  return page.file->call.gives_number && lists_records ? WriteStep::kNumbersListed
                                                       : WriteStep::kFreeLists;
}

// The head of the list of free nodes for step kDictionary: the first one that does not go out in
// step kStorageGivenUp. 0, an empty list, when a node cannot be read.
std::int32_t free_nodes_written() {
  const KeepError keep;
  NodeChain<AnyNode> chain{dictp->d_freenode(), {}};
  while (const PageHold page = chain.read()) {
    if (!page.is_given_up()) break;
    chain.follow(page);
  }
  return chain.end() == ChainEnd::kUnreadable ? 0 : chain.node();
}

}  // namespace

int WriteOrder::write_all(OpenPair& file) {
  withhold_given(file);
  gather_pages(file);
  overwritten_.reserve(pages_.size());
  if (make_room(file) != 0 || write_pages_before(WriteStep::kDictionary, file) != 0) return -1;
  if (write_noted(file, place_of_dictionary(file), dictionary_.raw) != 0) return -1;
  // The bytes that wait to be written past the pool go behind the data blocks of their step.
  const WriteStep records = step_of_records(file);
  const WriteStep behind =
      records == WriteStep::kRecords ? WriteStep::kStorageGivenUp : WriteStep::kNodes;
  if (write_pages_before(behind, file) != 0 || write_direct(file) != 0) return -1;
  if (write_pages_before(WriteStep::kDictionaryAgain, file) != 0) return -1;
  return write_dictionary_again(file);
}

WriteOrder::WriteOrder(Pool& pool) : pool_(pool) {
  pages_.reserve(pool.most_buffers());
  run_.reserve(kLongestRun * kPageSize);
}

// Makes the dictionary of step kDictionary: what the call gives back is not free in it yet. As long
// as an index or a record may refer to it, nobody else gets it.
// (Only with variable length may the list of free nodes begin with nodes that give storage up.)
void WriteOrder::withhold_given(const OpenPair& file) {
  dictionary_ = file.cached.dictionary;
  if (file.call.gives_number) {
    dictionary_.set_d_nextdata(file.call.numbers_before);
    dictionary_.set_d_freedata(file.call.free_list_before);
  }
  if (file.geometry.varlen && dictionary_.d_freenode() != file.call.free_nodes_before) {
    dictionary_.set_d_freenode(free_nodes_written());
  }
}

// Moves the last page to its place among those before it, which are in order.
inline void WriteOrder::move_to_place(std::span<Outgoing> pages) {
  const Outgoing last = pages.back();
  std::size_t at = pages.size() - 1;
  for (; at > 0 && pages[at - 1].order > last.order; --at) pages[at] = pages[at - 1];
  pages[at] = last;
}

// A function of its own, for most calls change a few pages only.
[[gnu::cold]] void WriteOrder::sort_by_order(std::span<Outgoing> pages) {
  std::ranges::sort(pages, {}, &Outgoing::order);
}

// Sorts the file's modified idle pages by their steps and, within a step, from the highest block
// down.
void WriteOrder::gather_pages(const OpenPair& file) {
  pages_.clear();
  for (Buffer* at = file.unwritten.pages; at != nullptr; at = at->modified_next) {
    if ((at->flags & kBusy) != 0) continue;
    const std::uint64_t within = static_cast<std::uint32_t>(~at->block);
    pages_.push_back({static_cast<std::uint64_t>(step_of(*at)) << 32 | within, at});
    if (pages_.size() <= kFewPages) move_to_place(pages_);
  }
  if (pages_.size() > kFewPages) sort_by_order(pages_);
  rest_ = pages_;
}

// A file that will be longer is noted with its size, so that a commit that fails can cut it back.
int WriteOrder::make_room(OpenPair& file) {
  if (is_next(WriteStep::kNewNodes)) {
    std::int64_t size = 0;
    if (common::find_end(file.index.fd, size) != 0) {
      return failed_system(errno, Operation::kRead, FileKind::kIndex);
    }
    overwritten_.note_size(FileKind::kIndex, size);
  }
  return lengthen_data(file);
}

// Writes zero bytes where the data file will be longer. They read as absent records if the commit
// is interrupted before it writes the records. 0, or -1 with iserrno.
int WriteOrder::lengthen_data(OpenPair& file) {
  std::int64_t first = INT32_MAX;  // blocks
  std::int64_t last = -1;
  for (const auto& [order, page] : pages_) {
    if (page->block >= 0) continue;
    first = std::min<std::int64_t>(first, page->block & INT32_MAX);
    last = std::max<std::int64_t>(last, page->block & INT32_MAX);
  }
  std::int64_t& size = file.data.extent.bytes;  // as last known
  const DirectWrite& direct = file.unwritten.direct;
  const bool is_end_known = !direct.empty() && direct.file_end > 0;
  if (is_end_known) {
    size = direct.file_end;
    const std::int64_t behind = direct.offset + static_cast<std::int64_t>(direct.size);
    last = std::max(last, (behind - 1) / kPageSize);
  }
  const std::int64_t end = (last + 1) * kPageSize;
  if (end <= size) return 0;
  if (!is_end_known && common::find_end(file.data.fd, size) != 0) {
    return failed_system(errno, Operation::kRead, FileKind::kData);
  }
  if (end <= size) return 0;
  overwritten_.note_size(FileKind::kData, size);
  const std::int64_t start = is_end_known ? size : std::max(first * kPageSize, size);
  if (common::write_zeros(file.data.fd, start, end) != 0) {
    return failed_system(errno, Operation::kWrite, FileKind::kData);
  }
  size = end;
  file.data.map.written(end);
  return 0;
}

// Writes without keeping what stood there.
inline int WriteOrder::write_over(OpenPair& file, const Place& place, const Byte* bytes) {
  pool_.window_of(place.kind).overwritten(place.fd, place.offset, place.length);
  if (common::write_at(place.fd, {bytes, place.length}, place.offset) != 0) {
    return failed_system(errno, Operation::kWrite, place.kind);
  }
  map_of(file, place.kind).written(place.offset + static_cast<std::int64_t>(place.length));
  return 0;
}

// Writes after keeping what stood there: a commit that fails can write it back.
inline int WriteOrder::write_noted(OpenPair& file, const Place& place, const Byte* bytes) {
  return overwritten_.keep(file, place) != 0 ? -1 : write_over(file, place, bytes);
}

// The next page, and with it the blocks of data right before it in the file.
inline std::span<const WriteOrder::Outgoing> WriteOrder::next_run() const {
  const auto block = [this](std::size_t at) { return std::int64_t{rest_[at].page->block}; };
  std::size_t count = 1;
  if (block(0) < 0) {
    const std::size_t most = std::min(rest_.size(), kLongestRun);
    while (count < most && block(count) == block(count - 1) - 1) ++count;
  }
  return rest_.first(count);
}

// Writes the next run in one piece. The run begins with its highest block, the piece with its
// lowest.
int WriteOrder::write_run(OpenPair& file) {
  const std::span<const Outgoing> run = next_run();
  const Buffer* const first = run.back().page;
  Place place = bfmapaddr(*first);
  const Byte* bytes = first->page;
  if (run.size() > 1) {
    place.length = run.size() * kPageSize;
    run_.resize(place.length);
    Byte* to = run_.data() + place.length;
    for (const Outgoing& outgoing : run) {
      to -= kPageSize;
      std::memcpy(to, outgoing.page->page, kPageSize);
    }
    bytes = run_.data();
  }
  if (first->before > 0) {  // a node: it goes by itself
    const ConstBytes before = file.unwritten.before[first->before - 1U];
    overwritten_.keep_read(place.fd, place.offset, before.first(place.length));
  } else if (overwritten_.keep(file, place) != 0) {
    return -1;
  }
  if (write_over(file, place, bytes) != 0) return -1;
  for (const Outgoing& outgoing : run) pool_.modified_out(outgoing.page);
  rest_ = rest_.subspan(run.size());
  return 0;
}

int WriteOrder::write_pages_before(WriteStep step, OpenPair& file) {
  while (!rest_.empty() && rest_.front().step() < step) {
    if (write_run(file) != 0) return -1;
  }
  return 0;
}

// Writes the bytes that wait to be written past the pool. What the file has in their place was read
// when they were taken (DirectWrite::before).
inline int WriteOrder::write_direct(OpenPair& file) {
  const DirectWrite& direct = file.unwritten.direct;
  if (direct.empty()) return 0;
  overwritten_.keep_read(file.data.fd, direct.offset, direct.before());
  return pool_.write_direct(file);
}

// What stood there is kept since step kDictionary.
int WriteOrder::write_dictionary_again(OpenPair& file) {
  const Byte* const bytes = file.cached.dictionary.raw;
  const bool differs = std::memcmp(dictionary_.raw, bytes, kDictionarySize) != 0;
  return differs ? write_over(file, place_of_dictionary(file), bytes) : 0;
}

void WriteOrder::forget_changes(OpenPair& file) {
  file.unwritten.failed = {};
  file.unwritten.direct.clear();
  while (file.unwritten.pages != nullptr) pool_.modified_out(file.unwritten.pages);
  pool_.bfignor(file);
}

int WriteOrder::commit(OpenPair& file) {
  // A write that failed before the commit: then nothing more is written, and it is told.
  const FailedWrite earlier = std::exchange(file.unwritten.failed, {});
  overwritten_.begin();
  bool written = false;
  try {
    written = earlier.error == 0 && write_all(file) == 0;
  } catch (const std::bad_alloc&) {
    failed(kNoMemory);
  }
  if (written) return 0;
  if (earlier.error != 0) {
    iserrno = earlier.error;
    iserrio = earlier.place;
  }
  overwritten_.write_back(file);
  forget_changes(file);
  return -1;
}

}  // namespace isam
