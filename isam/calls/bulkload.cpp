#include "isam/calls/bulkload.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/files/dictionary.h"
#include "isam/pool/buffers.h"
#include "isam/pool/extent.h"
#include "isam/pool/mark.h"
#include "isam/pool/nodechain.h"
#include "isam/records/datafile.h"

namespace isam {
namespace {

constexpr std::size_t kSlotsAtOnce = std::size_t{1} << 20;  // bytes
constexpr std::int64_t kMostBlocks = std::int64_t{INT32_MAX} + 1;
constexpr std::size_t kMemberSize = 8;
constexpr std::size_t kNumberSize = 4;
constexpr std::size_t kPartSize = kNumberSize + kVariableTrailer - kTrailerLength;

std::int64_t offset_of(std::int32_t number) { return std::int64_t{number - 1} * slot_size(); }

int failed_on(FileKind kind, Operation operation) { return failed_system(errno, operation, kind); }

int write(FileKind kind, ConstBytes bytes, std::int64_t offset) {
  const int fd = kind == FileKind::kIndex ? filep->index.fd : filep->data.fd;
  return common::write_in_pieces(fd, bytes, offset) == 0 ? 0 : failed_on(kind, Operation::kWrite);
}

// All that is asked for, or -1 with iserrno.
int read(FileKind kind, Bytes to, std::int64_t offset) {
  const int fd = kind == FileKind::kIndex ? filep->index.fd : filep->data.fd;
  const ssize_t got = common::read_at(fd, to, offset);
  if (got == static_cast<ssize_t>(to.size())) return 0;
  return got < 0 ? failed_on(kind, Operation::kRead) : failed(kCorrupted);
}

// Writes zero bytes where there are others: a disk on which nothing could be written has them
// still. 0, or -1 with errno.
int clear_bytes(int fd, std::int64_t from, std::int64_t to) {
  Byte some[4 * kPageSize];
  for (std::int64_t end = from; from < to; from = end) {
    end = std::min(to, from + static_cast<std::int64_t>(sizeof some));
    const Bytes part{some, static_cast<std::size_t>(end - from)};
    const ssize_t got = common::read_at(fd, part, from);
    const bool clear =
        got == end - from && std::ranges::all_of(part, [](Byte byte) { return byte == 0; });
    if (!clear && common::write_zeros(fd, from, end) != 0) return -1;
  }
  return 0;
}

// A file gets its size back. Where it was longer than its dictionary told, zero bytes stand there
// again: whatever they were, nobody had a use for them. 0, or -1 with errno.
int cut_back(PairFile& file, std::int64_t used, std::int64_t written, std::int64_t size) {
  if (written <= used) return 0;
  int result = clear_bytes(file.fd, used, std::min(written, size));
  if (written > size && common::cut_file(file.fd, size) != 0) result = -1;
  file.map.cut(size);
  return result;
}

// Only the head of a free list, whose nodes are of a type, may be without entries: where others
// come before an empty one, that is passed over and becomes a free node. 0, or -1 with iserrno.
int pass_empty_head(Byte type, std::int32_t& head, const std::vector<bool>& seen,
                    std::vector<std::int32_t>& free_nodes) {
  if (head == 0) return 0;
  NodeChain<AnyNode> chain{head, {}};
  const bool elsewhere =
      static_cast<std::size_t>(head) >= seen.size() || seen[static_cast<std::size_t>(head)];
  const PageHold page = elsewhere ? PageHold{} : chain.read();
  if (!page) return failed_unless_set(kCorrupted);
  if (page.node_type() != type || page.level() != kFreeLevel) return failed(kCorrupted);
  if (page.used() != kEntriesOffset) return 0;
  free_nodes.push_back(head);
  chain.follow(page);
  head = chain.node();
  return 0;
}

}  // namespace

BulkLoad::BulkLoad(const Open& open, const Keys& keys)
    : open_(&open),
      parts_(shape_of_sort(kPartSize, kNumberSize)),
      first_(number_behind(dictp->d_nextdata())),
      slots_begin_(first_) {
  std::ranges::copy_if(keys, std::back_inserter(keys_),
                       [](const keydescr& k) { return k.nparts > 0; });
  for (const keydescr& k : keys_) loads_.emplace_back(k, static_cast<int>(keys_.size()));
  // With what fills the last block.
  slots_.reserve(kSlotsAtOnce + static_cast<std::size_t>(slot_size()) + kPageSize);
}

int BulkLoad::begin() {
  if (common::find_size(filep->data.fd, data_size_) != 0) {
    return failed_on(FileKind::kData, Operation::kRead);
  }
  if (common::find_size(filep->index.fd, index_size_) != 0) {
    return failed_on(FileKind::kIndex, Operation::kRead);
  }
  // A dictionary may claim any number, and what is written behind it would make a file immense.
  const bool whole = dictp->d_nextdata() >= 0 && dictp->d_nextnode() > 0 &&
                     offset_of(first_) <= data_size_ &&
                     std::int64_t{dictp->d_nextnode()} * node_size() <= index_size_;
  if (!whole) return failed(kCorrupted);
  return filep->geometry.varlen ? nodes_.begin_unfinished(index_size_) : 0;
}

int BulkLoad::check_room() const {
  const std::int32_t number = next_number();
  const bool fits = number != INT32_MAX && end_of_slot(number) / kPageSize <= kMostBlocks;
  return fits ? 0 : failed(kCorrupted);
}

std::int32_t BulkLoad::add(ConstBytes record) {
  const std::int32_t number = next_number();
  if (check_room() != 0) return -1;
  for (IndexLoad& load : loads_) {
    if (load.add(record.data(), number) != 0) return -1;
  }
  const ConstBytes fixed = record.first(static_cast<std::size_t>(filep->geometry.reclen));
  if (filep->geometry.varlen && store_part(number, record.subspan(fixed.size())) != 0) return -1;
  return add_slot(fixed) == 0 ? number : -1;
}

int BulkLoad::skip(std::int32_t count) {
  if (count > 0) gaps_.push_back({next_number(), count});
  for (; count > 0; --count) {
    if (check_room() != 0) return -1;
    if (filep->geometry.varlen && store_part(next_number(), {}) != 0) return -1;
    if (add_slot({}) != 0) return -1;
  }
  return 0;
}

int BulkLoad::add_slot(ConstBytes fixed) {
  slots_.insert(slots_.end(), fixed.begin(), fixed.end());
  ++count_;
  slots_.resize(slots_.size() + static_cast<std::size_t>(slot_size()) - fixed.size());
  return slots_.size() >= kSlotsAtOnce ? write_slots() : 0;
}

int BulkLoad::store_part(std::int32_t number, ConstBytes part) {
  const std::int32_t reference = storage_.store(part);
  if (reference == -1) return failed_unless_set(kCorrupted);
  Byte entry[kPartSize];
  common::stlong(number, entry);
  common::stword(static_cast<std::uint32_t>(part.size()), entry + kNumberSize);
  common::stlong(reference, entry + kNumberSize + kTrailerReference - kTrailerLength);
  return parts_.add(entry) == 0 ? 0 : failed_system(errno);
}

int BulkLoad::write_slots() {
  const std::int64_t offset = offset_of(slots_begin_);
  data_written_ = offset + static_cast<std::int64_t>(slots_.size());
  if (write(FileKind::kData, slots_, offset) != 0) return -1;
  slots_begin_ = next_number();
  slots_.clear();
  return 0;
}

// A second time only when records are refused.
int BulkLoad::build_indexes(Refusals& refusals) {
  for (IndexLoad& load : loads_) {
    if (load.sort() != 0) return -1;
  }
  if (parts_.finish() != 0) return failed_system(errno);
  // What a rewind() gives up is not to be what variable parts are in.
  if (nodes_.flush() != 0) return -1;
  nodes_.begin_again_here();
  for (bool again = false;; again = true) {
    for (std::size_t i = 0; i < loads_.size(); ++i) {
      if (IndexMerge{keys_[i], loads_[i], nodes_, refusals}.run() != 0) return -1;
    }
    const int decided = again ? 0 : refusals.decide();
    if (decided <= 0) return decided;
    nodes_.rewind();
    for (IndexLoad& load : loads_) {
      if (load.rewind() != 0) return -1;
    }
  }
}

// The nodes of the trees that there were, and the numbers of refused records, become free with the
// dictionary `after`.
int BulkLoad::list_free(const Refusals& refusals, std::span<const std::int32_t> refused,
                        Dictionary& after) {
  std::vector<bool> seen(static_cast<std::size_t>(dictp->d_nextnode()) + 1);
  for (const keydescr& k : keys_) {
    const auto root = static_cast<std::size_t>(k.rootnode);
    if (k.rootnode < 2 || root >= seen.size() || seen[root]) return failed(kCorrupted);
    seen[root] = true;
  }
  std::vector<std::int32_t> old_nodes;
  for (const keydescr& k : keys_) {
    if (gather_nodes(k, seen, old_nodes) != 0) return -1;
  }
  std::int32_t last = next_number() - 1;
  while (last >= first_ && refusals.has(last)) {
    --last;
    refused = refused.first(refused.size() - 1);
  }
  after.set_d_nextdata(last);
  if (filep->geometry.varlen) old_nodes.push_back(nodes_.first());
  std::int32_t listed = dictp->d_freedata();
  std::int32_t free_node = dictp->d_freenode();
  if (!refused.empty() && pass_empty_head(kServiceNode, listed, seen, old_nodes) != 0) return -1;
  if (!old_nodes.empty() && pass_empty_head(kIndexFreeNode, free_node, seen, old_nodes) != 0) {
    return -1;
  }
  const std::int32_t nodes = nodes_.write_list(FreeList::kNodes, old_nodes, free_node);
  const std::int32_t numbers = nodes_.write_list(FreeList::kRecords, refused, listed);
  if (nodes < 0 || numbers < 0 || storage_.finish(after) != 0) return -1;
  after.set_d_freenode(nodes);
  after.set_d_freedata(numbers);
  after.set_d_nextnode(nodes_.last());
  return nodes_.flush();
}

int BulkLoad::finish(std::vector<std::int32_t>& refused) {
  Refusals refusals{first_, count_, shape_of_sort(kMemberSize, kNumberSize)};
  if (count_ == 0) return 0;
  for (const Gap& gap : gaps_) refusals.leave_out(gap.first, gap.count);
  if (build_indexes(refusals) != 0) return -1;
  std::vector<std::int32_t> unused;
  for (std::int32_t number = first_; number < next_number(); ++number) {
    if (refusals.has(number)) unused.push_back(number);
  }
  refused = without_gaps(unused);
  if (unused.size() == static_cast<std::size_t>(count_)) {
    static_cast<void>(take_back());
    return 0;
  }
  Dictionary after = *dictp;
  if (list_free(refusals, unused, after) != 0) return -1;
  after.set_d_modcount(filep->cached.stamp + 1);
  if (commit(after, refusals) != 0) return -1;
  if (filep->geometry.varlen && !unused.empty()) free_storage(refused);
  return 0;
}

std::vector<std::int32_t> BulkLoad::without_gaps(std::span<const std::int32_t> numbers) const {
  std::vector<std::int32_t> left;
  auto gap = gaps_.begin();
  for (const std::int32_t number : numbers) {
    while (gap != gaps_.end() && number - gap->first >= gap->count) ++gap;
    if (gap == gaps_.end() || number < gap->first) left.push_back(number);
  }
  return left;
}

// What refused records have in storage pages, as a deletion does. What fails is told as a late
// write that failed is: the records are added all the same. Then the mark goes.
void BulkLoad::free_storage(std::span<const std::int32_t> refused) {
  const KeepError keep;
  const auto free_one = [](std::int32_t number) {
    try {
      return datadelete(number);
    } catch (const std::bad_alloc&) {
      return failed(kNoMemory);
    }
  };
  for (const std::int32_t number : refused) {
    if (free_one(number) != 0) bfnote_failure(*filep);
  }
  filep->call.page_changed = false;  // what changed has the stamp of the load
  iserrno = 0;
  if (write_and_unmark() != 0) bfnote_failure(*filep);
}

// Slots from `number` on become present, those of refused records are cleared. But what they have
// in storage pages stays named until it is freed.
int BulkLoad::set_states(std::int32_t number, Bytes slots, const Refusals& refusals) {
  const auto size = static_cast<std::size_t>(slot_size());
  for (; !slots.empty(); slots = slots.subspan(size), ++number) {
    const Bytes slot = slots.first(size);
    const Bytes trailer = slot.subspan(static_cast<std::size_t>(filep->geometry.reclen));
    const bool refused = refusals.has(number);
    if (refused) std::ranges::fill(slot, Byte{0});
    if (!refused) trailer[0] = kRecordPresent;
    if (!filep->geometry.varlen) continue;
    const Byte* const part = parts_.next();
    if (part == nullptr) return failed_system(parts_.error() != 0 ? parts_.error() : EIO);
    std::copy(part + kNumberSize, part + kPartSize, trailer.begin() + kTrailerLength);
  }
  return 0;
}

// What has not been written yet is written once, present. Slots go through `room`.
int BulkLoad::make_present(std::int32_t last, const Refusals& refusals, Bytes room) {
  const auto size = static_cast<std::size_t>(slot_size());
  for (std::int32_t number = first_; number < slots_begin_;) {
    const auto left = static_cast<std::size_t>(slots_begin_ - number);
    const std::size_t count = std::min(room.size() / size, left);
    const Bytes some = room.first(count * size);
    if (read(FileKind::kData, some, offset_of(number)) != 0) return -1;
    if (set_states(number, some, refusals) != 0) return -1;
    if (write(FileKind::kData, some, offset_of(number)) != 0) return -1;
    number += static_cast<std::int32_t>(count);
  }
  if (set_states(slots_begin_, slots_, refusals) != 0) return -1;
  const std::int64_t end = offset_of(slots_begin_) + static_cast<std::int64_t>(slots_.size());
  slots_.resize(slots_.size() + static_cast<std::size_t>(end_of_slot(next_number() - 1) - end));
  if (write_slots() != 0) return -1;
  // With variable length free_storage() still reads the slots behind the last record.
  if (filep->geometry.varlen) return 0;
  const std::int64_t needed = std::max(data_size_, end_of_slot(last));
  if (data_written_ > needed && common::cut_file(filep->data.fd, needed) == 0) {
    filep->data.map.cut(needed);
  }
  return 0;
}

int BulkLoad::write_last(const Dictionary& after, const Refusals& refusals, Bytes room) {
  if (set_mark(*filep) != 0) return -1;
  if (filep->geometry.varlen && nodes_.end_unfinished() != 0) return -1;
  if (make_present(after.d_nextdata(), refusals, room) != 0) return -1;
  for (const NewNodes::KeptBack& root : nodes_.kept_back()) {
    const ConstBytes page{root.page.data(), static_cast<std::size_t>(node_size())};
    if (write(FileKind::kIndex, page, std::int64_t{root.node - 1} * node_size()) != 0) return -1;
  }
  if (write(FileKind::kIndex, after.raw, 0) != 0) return -1;
  // What free_storage() changes stays unwritten for now.
  return filep->geometry.varlen && refusals.any() ? 0 : clear_mark(*filep);
}

int BulkLoad::commit(const Dictionary& after, const Refusals& refusals) {
  const auto size = static_cast<std::size_t>(node_size());
  std::vector<Byte> roots(nodes_.kept_back().size() * size);
  // Once the mark is set nothing asks for memory.
  const auto slot = static_cast<std::size_t>(slot_size());
  std::vector<Byte> room(std::max<std::size_t>(kSlotsAtOnce / slot, 1) * slot);
  Bytes to = roots;
  for (const NewNodes::KeptBack& root : nodes_.kept_back()) {
    if (read(FileKind::kIndex, to.first(size), std::int64_t{root.node - 1} * node_size()) != 0) {
      return -1;
    }
    to = to.subspan(size);
  }
  if (write_last(after, refusals, room) == 0) {
    committed_ = true;
    *dictp = after;
    filep->cached.stamp = after.d_modcount();
    filep->unwritten.dictionary = false;
    bfignor(*filep);
    forget_extent();
    return 0;
  }
  const KeepError keep;
  int result = write(FileKind::kIndex, dictp->raw, 0);
  ConstBytes from = roots;
  for (const NewNodes::KeptBack& root : nodes_.kept_back()) {
    result |= write(FileKind::kIndex, from.first(size), std::int64_t{root.node - 1} * node_size());
    from = from.subspan(size);
  }
  // The mark stays where the pair is not as it was.
  if ((take_back() | result) != 0 || clear_mark(*filep) != 0) bfnote_failure(*filep);
  return -1;
}

int BulkLoad::take_back() {
  if (committed_) return 0;
  const KeepError keep;
  int result = cut_back(filep->data, offset_of(first_), data_written_, data_size_);
  result |= cut_back(filep->index, std::int64_t{dictp->d_nextnode()} * node_size(),
                     std::int64_t{nodes_.last_written()} * node_size(), index_size_);
  bfignor(*filep);  // a block read meanwhile may hold slots of the load
  return result;
}

void drop_load(const Open& open) {
  OpenPair& file = *open.file;
  if (file.load == nullptr || !file.load->belongs_to(open)) return;
  static_cast<void>(file.load->take_back());
  file.load.reset();
}

}  // namespace isam
