#include "zentra/diff/recordmatch.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <utility>

#include "common/io.h"
#include "zentra/check/collector.h"
#include "zentra/repair/badrecords.h"
#include "zentra/report/progress.h"

namespace zentra {
namespace {

using std::chrono::steady_clock;

constexpr std::int64_t kBlockBytes = 256 << 10;
constexpr std::size_t kSorterMemory = std::size_t{20} << 20;
constexpr std::size_t kMostRemembered = 4096;  // of a group and a pair
constexpr std::size_t kNumberSize = 4;

// The key of a record, part by part.
void copy_key(const keydescr& k, isam::ConstBytes record, isam::Byte* to) {
  for (int i = 0; i < k.nparts; ++i) {
    const auto length = static_cast<std::size_t>(k.part[i].length);
    std::memcpy(to, record.data() + k.part[i].start, length);
    to += length;
  }
}

}  // namespace

bool read_record(Side& side, isam::ConstBytes slot, std::vector<isam::Byte>& record) {
  const auto fixed = static_cast<std::size_t>(side.shape.reclen);
  record.assign(slot.begin(), slot.begin() + side.shape.reclen);
  if (!side.shape.varlen) return true;
  const isam::ConstBytes trailer = slot.subspan(fixed);
  const int length = common::ldshort(trailer.data() + isam::kTrailerLength);
  if (length == 0) return true;
  if (length < 0 || length > side.shape.maxreclen - side.shape.reclen) return false;
  side.use();
  std::string tail;
  if (variable_part(trailer, tail) != 0 || std::ssize(tail) != length) return false;
  record.insert(record.end(), tail.begin(), tail.end());
  return true;
}

bool read_record(Side& side, std::int32_t number, std::vector<isam::Byte>& record) {
  std::vector<isam::Byte> slot(static_cast<std::size_t>(side.slot_size()));
  const std::int64_t offset = std::int64_t{number - 1} * side.slot_size();
  record.clear();
  return common::read_at(side.data, slot, offset) == std::ssize(slot) &&
         read_record(side, isam::ConstBytes{slot}, record);
}

RecordMatch::RecordMatch(TwoPairs& pairs, const ComparedFields& fields, const Order& order,
                         Differences& differences)
    : pairs_(pairs),
      fields_(fields),
      order_(order),
      differences_(differences),
      blocks_{SlotBlock{pairs[0]}, SlotBlock{pairs[1]}} {
  if (!order_.key) return;
  const keydescr& key = *order_.key;
  if (isam::SortKey::possible(key)) {
    sort_key_.emplace(key);
  } else {
    key_order_.emplace(key);
  }
  key_size_ = static_cast<std::size_t>(key.keylen);
  entry_.resize(key_size_ + common::Digest::kSize + kNumberSize + 1);
  group_key_.resize(key_size_);
  for (auto& sorter : sorters_) {
    common::Sorter::Shape shape{.entry_size = entry_.size(),
                                .key_size = entry_.size(),
                                .memory = kSorterMemory,
                                .folder = temporary_folder(),
                                .order = {}};
    if (key_order_) {
      shape.order = [this](const isam::Byte* a, const isam::Byte* b) {
        const int by_key = compare_keys(a, b);
        return by_key != 0 ? by_key
                           : std::memcmp(a + key_size_, b + key_size_, entry_.size() - key_size_);
      };
    }
    sorter = std::make_unique<common::Sorter>(std::move(shape));
  }
}

int RecordMatch::run() {
  compare_slots();
  if (!order_.key || error_ != 0 || differences_.is_enough()) return error_;
  for (const auto& sorter : sorters_) {
    if (sorter->finish() != 0) return errno;
  }
  merge();
  return error_;
}

// --- The first step: slots of the same number --------------------------------------------------

void RecordMatch::compare_slots() {
  for (const int side : {0, 1}) {
    const std::int32_t last = blocks_[index(side)].last_in_file();
    if (last < pairs_[side].last) {
      differences_.left_out(side, last + 1, "the data file ends before it, and all behind it");
    }
  }
  shares_storage_ = is_storage_alike();
  const std::int32_t last = std::max(blocks_[0].last_in_file(), blocks_[1].last_in_file());
  const auto step = static_cast<std::int32_t>(std::max<std::int64_t>(
      1, kBlockBytes / std::max(pairs_[0].slot_size(), pairs_[1].slot_size())));
  const auto start = steady_clock::now();
  for (std::int64_t first = 1; first <= last; first += step) {
    const auto from = static_cast<std::int32_t>(first);
    const auto end = static_cast<std::int32_t>(std::min<std::int64_t>(last, first + step - 1));
    for (SlotBlock& block : blocks_) block.read(from, static_cast<std::size_t>(end - from) + 1);
    if (!count_alike(from, end)) {
      for (std::int32_t number = from; number <= end; ++number) compare_slot(number);
    }
    if (error_ != 0 || differences_.is_enough()) return;
    const std::chrono::duration<double> passed = steady_clock::now() - start;
    show_progress("Comparing records", end, last, passed.count());
  }
}

// Whether all slots of the blocks are the same and sound: then they are counted.
bool RecordMatch::count_alike(std::int32_t first, std::int32_t end) {
  if (!fields_.is_of_one_shape()) return false;
  if (pairs_[0].shape.varlen && !shares_storage_) return false;
  const isam::ConstBytes a = blocks_[0].bytes();
  const isam::ConstBytes b = blocks_[1].bytes();
  const auto size = static_cast<std::size_t>(pairs_[0].slot_size());
  const std::size_t slots = static_cast<std::size_t>(end - first) + 1;
  const bool are_alike = a.size() == slots * size && b.size() == a.size() &&
                         std::memcmp(a.data(), b.data(), a.size()) == 0;
  if (!are_alike) return false;
  std::int64_t present = 0;
  auto at = static_cast<std::size_t>(pairs_[0].shape.reclen);
  for (; at < a.size(); at += size) {
    if (a[at] == isam::kRecordPresent) {
      ++present;
    } else if (a[at] != isam::kRecordAbsent) {
      return false;
    }
  }
  equal_ += present;
  for (std::int64_t& count : present_) count += present;
  return true;
}

void RecordMatch::compare_slot(std::int32_t number) {
  const std::array<Slot, 2> slots = {blocks_[0].slot(number), blocks_[1].slot(number)};
  for (const int side : {0, 1}) {
    const Slot& slot = slots[index(side)];
    present_[index(side)] += slot.is_present() ? 1 : 0;
    if (slot.why != nullptr) differences_.left_out(side, number, slot.why);
  }
  if (slots[0].is_present() && slots[1].is_present() && are_equal(slots[0], slots[1])) {
    ++equal_;
    return;
  }
  if (!order_.key) return tell_by_number(number, slots[0], slots[1]);
  for (const int side : {0, 1}) {
    if (slots[index(side)].is_present()) {
      put_aside(side, number, slots[index(side)], slots[index(1 - side)].is_lost());
    }
  }
}

bool RecordMatch::are_equal(const Slot& a, const Slot& b) {
  if (fields_.is_of_one_shape()) {
    const auto fixed = static_cast<std::size_t>(pairs_[0].shape.reclen);
    return std::memcmp(a.bytes.data(), b.bytes.data(), fixed) == 0 &&
           (!pairs_[0].shape.varlen || have_equal_storage(a.bytes, b.bytes));
  }
  for (const int side : {0, 1}) {
    compared_[side].clear();
    if (!take_record(side, (side == 0 ? a : b).bytes)) return false;
    fields_.put(side, records_[index(side)], compared_[side]);
    if (!order_.key) continue;
    const std::size_t end = compared_[side].size();
    compared_[side].resize(end + key_size_);
    copy_key(*order_.key, records_[index(side)], compared_[side].data() + end);
  }
  return compared_[0] == compared_[1];
}

bool RecordMatch::have_equal_storage(isam::ConstBytes a, isam::ConstBytes b) {
  const auto fixed = static_cast<std::size_t>(pairs_[0].shape.reclen);
  const isam::ConstBytes trailers[] = {a.subspan(fixed), b.subspan(fixed)};
  if (shares_storage_ && std::ranges::equal(trailers[0], trailers[1])) return true;
  const auto length = [&](int side) {
    return common::ldshort(trailers[side].data() + isam::kTrailerLength);
  };
  if (length(0) != length(1)) return false;
  return length(0) == 0 || (take_record(0, a) && take_record(1, b) && records_[0] == records_[1]);
}

bool RecordMatch::take_record(int side, isam::ConstBytes slot) {
  return read_record(pairs_[side], slot, records_[index(side)]);
}

void RecordMatch::tell_by_number(std::int32_t number, const Slot& a, const Slot& b) {
  if (a.is_lost() || b.is_lost()) return;
  if (!a.is_present() && !b.is_present()) return;
  if (!b.is_present()) return differences_.removed(number);
  if (!a.is_present()) return differences_.added(number);
  const bool are_read[] = {take_record(0, a.bytes), take_record(1, b.bytes)};
  for (const int side : {0, 1}) {
    if (!are_read[side]) differences_.left_out(side, number, "its variable part cannot be read");
  }
  if (are_read[0] && are_read[1]) differences_.changed(number, number);
}

void RecordMatch::put_aside(int side, std::int32_t number, const Slot& slot, bool is_doubtful) {
  const bool is_read = take_record(side, slot.bytes);
  const std::vector<isam::Byte>& record = records_[index(side)];
  isam::Byte* at = entry_.data();
  copy_key(*order_.key, record, group_key_.data());
  if (sort_key_) {
    sort_key_->make(group_key_.data(), at);
  } else {
    std::ranges::copy(group_key_, at);
  }
  at += key_size_;
  compared_[side].clear();
  if (is_read) fields_.put(side, record, compared_[side]);
  digest_.make(compared_[side], at);
  at += common::Digest::kSize;
  common::stlong(number, at);
  at[kNumberSize] =
      static_cast<isam::Byte>((is_read ? 0 : kUnread) | (is_doubtful ? kDoubtful : 0));
  if (sorters_[index(side)]->add(entry_.data()) != 0) error_ = errno;
}

// Whether the nodes behind the dictionary are the same in both index files: then records with the
// same reference have the same variable part.
bool RecordMatch::is_storage_alike() {
  if (!fields_.is_of_one_shape() || !pairs_[0].shape.varlen) return false;
  if (pairs_[0].shape.idxsize != pairs_[1].shape.idxsize) return false;
  const std::int64_t size = common::file_size(pairs_[0].index);
  if (size != common::file_size(pairs_[1].index)) return false;
  std::vector<isam::Byte> bytes[2];
  for (std::vector<isam::Byte>& one : bytes) one.resize(kBlockBytes);
  for (std::int64_t at = pairs_[0].shape.idxsize + 1; at < size; at += kBlockBytes) {
    const ssize_t got = common::read_at(pairs_[0].index, bytes[0], at);
    const bool is_alike =
        got > 0 && common::read_at(pairs_[1].index, bytes[1], at) == got &&
        std::memcmp(bytes[0].data(), bytes[1].data(), static_cast<std::size_t>(got)) == 0;
    if (!is_alike) return false;
    show_progress("Comparing storage", at, size, 0);
  }
  return true;
}

// --- The second step: what is left, by key -----------------------------------------------------

void RecordMatch::next(int side) {
  at_[index(side)] = sorters_[index(side)]->next();
  if (sorters_[index(side)]->error() != 0) error_ = sorters_[index(side)]->error();
}

int RecordMatch::compare_keys(const isam::Byte* a, const isam::Byte* b) const {
  return key_order_ ? key_order_->compare(a, b) : std::memcmp(a, b, key_size_);
}

void RecordMatch::merge() {
  next(0);
  next(1);
  while ((at_[0] != nullptr || at_[1] != nullptr) && error_ == 0 && !differences_.is_enough()) {
    const bool begins_with_b =
        at_[0] == nullptr || (at_[1] != nullptr && compare_keys(at_[1], at_[0]) < 0);
    std::memcpy(group_key_.data(), at_[begins_with_b ? 1 : 0], key_size_);
    gather_group();
    end_group();
  }
}

bool RecordMatch::belongs(int side) const {
  return at_[index(side)] != nullptr && compare_keys(at_[index(side)], group_key_.data()) == 0;
}

// Takes all records with the group's key. Equal ones cancel each other.
void RecordMatch::gather_group() {
  while (error_ == 0 && !differences_.is_enough()) {
    const bool has_a = belongs(0);
    const bool has_b = belongs(1);
    if (!has_a && !has_b) return;
    const int order =
        has_a && has_b ? std::memcmp(at_[0] + key_size_, at_[1] + key_size_, common::Digest::kSize)
        : has_a        ? -1
                       : 1;
    const auto is_read = [this](int side) {
      return (at_[index(side)][entry_.size() - 1] & kUnread) == 0;
    };
    if (order == 0 && is_read(0) && is_read(1)) {
      ++equal_;
      next(0);
      next(1);
    } else {
      leave(order <= 0 ? 0 : 1);
    }
  }
}

// The record that a sorter stands at has no equal in the other pair.
void RecordMatch::leave(int side) {
  std::vector<Entry>& left = left_[index(side)];
  const isam::Byte* const number = at_[index(side)] + key_size_ + common::Digest::kSize;
  left.push_back({.number = common::ldlong(number), .flags = number[kNumberSize]});
  if (left.size() > kMostRemembered) end_group();
  next(side);
}

// Records of the same number have changed, and so has the only one that is left of each pair.
void RecordMatch::end_group() {
  for (std::vector<Entry>& left : left_) std::ranges::sort(left, {}, &Entry::number);
  std::array<std::vector<Entry>, 2> alone;
  auto b = left_[1].begin();
  for (const Entry& a : left_[0]) {
    while (b != left_[1].end() && b->number < a.number) alone[1].push_back(*b++);
    if (b != left_[1].end() && b->number == a.number) {
      tell_pair(a, *b++);
    } else {
      alone[0].push_back(a);
    }
  }
  alone[1].insert(alone[1].end(), b, left_[1].end());
  if (alone[0].size() == 1 && alone[1].size() == 1) {
    tell_pair(alone[0].front(), alone[1].front());
  } else {
    for (const int side : {0, 1}) {
      for (const Entry& entry : alone[index(side)]) tell_alone(side, entry);
    }
  }
  for (std::vector<Entry>& left : left_) left.clear();
}

void RecordMatch::tell_pair(const Entry& a, const Entry& b) {
  const Entry* const entries[] = {&a, &b};
  bool are_read = true;
  for (const int side : {0, 1}) {
    if ((entries[side]->flags & kUnread) == 0) continue;
    are_read = false;
    differences_.left_out(side, entries[side]->number, "its variable part cannot be read");
  }
  if (are_read) differences_.changed(a.number, b.number);
}

void RecordMatch::tell_alone(int side, const Entry& entry) {
  if ((entry.flags & kUnread) != 0) {
    differences_.left_out(side, entry.number, "its variable part cannot be read");
  } else if ((entry.flags & kDoubtful) != 0) {
    differences_.left_out(side, entry.number,
                          "the other pair may have it: its record of that number cannot be read");
  } else if (side == 0) {
    differences_.removed(entry.number);
  } else {
    differences_.added(entry.number);
  }
}

}  // namespace zentra
