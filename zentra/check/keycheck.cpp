#include "zentra/check/keycheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "checker/progress.h"
#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/pool/buffers.h"
#include "isam/records/datafile.h"
#include "isam/tree/items.h"
#include "zentra/pair/readahead.h"

namespace zentra {
namespace {

// An entry of the sorter: record, node, slot and key.
constexpr std::size_t kNodeAt = 4;
constexpr std::size_t kSlotAt = 8;
constexpr std::size_t kKeyAt = 12;
constexpr std::size_t kSortMemory = std::size_t{16} << 20;

// The bytes of a record that keys are taken from: false when they cannot be read.
bool read_fixed_part(std::int32_t record, isam::Bytes to) {
  const std::int64_t offset = std::int64_t{record - 1} * isam::slot_size();
  const auto length = static_cast<std::size_t>(isam::filep->geometry.reclen);
  return isam::bfcopy_data(offset, to.first(length), {}) || isam::dataread(record, to) > 0;
}

bool has_key(const isam::Byte* record, const keydescr& k, const isam::Byte* key) {
  for (int i = 0; i < k.nparts; ++i) {
    const keypart& part = k.part[i];
    const auto length = static_cast<std::size_t>(part.length);
    if (std::memcmp(record + part.start, key, length) != 0) return false;
    key += length;
  }
  return true;
}

}  // namespace

void KeyCheck::begins(int n, const keydescr& k) {
  number_ = n;
  key_ = k;
  // Of parts that an application orders by a table of its own, all values count as equal here.
  compares_ = std::none_of(k.part, k.part + k.nparts,
                           [](const keypart& part) { return (part.type & 0x7F) >= KT_COLL1; });
  order_.emplace(k);
  last_key_ = nullptr;
  items_ = differing_ = equal_ = same_number_ = 0;
  records_.clear();
  places_.clear();
  keys_.resize(kKeyAt + kBatch * static_cast<std::size_t>(k.keylen));
  bytes_.resize(static_cast<std::size_t>(isam::filep->geometry.maxreclen));
  isam::filep->data.map.look_again(isam::filep->data.fd);
  const bool sorts = wanted_order_ == Order::kOfRecords ||
                     (wanted_order_ == Order::kBySize && data_exceeds_cache());
  sorter_.reset();
  if (!sorts) return;
  const std::size_t size = kKeyAt + static_cast<std::size_t>(k.keylen);
  sorter_ = std::make_unique<common::Sorter>(common::Sorter::Shape{.entry_size = size,
                                                                   .key_size = kNodeAt,
                                                                   .memory = kSortMemory,
                                                                   .folder = temporary_folder(),
                                                                   .order = {}});
}

void KeyCheck::item(const checker::Listener::Leaf& place, const isam::Item& item) {
  ++items_;
  if (compares_) check_equal(place, item);
  last_number_ = item.dupnm;
  if (sorter_) return put_aside(place, item);
  const auto size = static_cast<std::size_t>(key_.keylen);
  // The key of the batch before stays readable when a new one begins.
  isam::Byte* const key = keys_.data() + records_.size() * size;
  std::memcpy(key, item.key, size);
  last_key_ = key;
  records_.push_back(item.recptr);
  places_.push_back(place);
  if (records_.size() == kBatch) flush();
}

void KeyCheck::put_aside(const checker::Listener::Leaf& place, const isam::Item& item) {
  common::stlong(item.recptr, keys_.data());
  common::stlong(place.node, &keys_[kNodeAt]);
  common::stlong(place.slot, &keys_[kSlotAt]);
  std::memcpy(&keys_[kKeyAt], item.key, static_cast<std::size_t>(key_.keylen));
  last_key_ = &keys_[kKeyAt];
  if (sorter_->add(keys_.data()) != 0) sorting_failed(errno);
}

void KeyCheck::compare_sorted() {
  const isam::KeepError keep;
  if (sorter_->finish() != 0) return sorting_failed(errno);
  checker::Progress progress("Comparing keys with records", items_);
  std::int64_t done = 0;
  while (const isam::Byte* const entry = sorter_->next()) {
    progress.at(++done);
    compare({common::ldlong(entry), common::ldlong(entry + kNodeAt),
             common::ldlong(entry + kSlotAt), entry + kKeyAt});
  }
  if (sorter_->error() != 0) return sorting_failed(sorter_->error());
  sorter_.reset();
}

// The keys that come from now on are compared at once.
void KeyCheck::sorting_failed(int system_error) {
  collector_.failed(system_error, 0);
  sorter_.reset();
}

// The first item of a leaf comes behind one of an upper node, whose key may be that of an item that
// is gone: the last item of the leaf before counts.
void KeyCheck::check_equal(const checker::Listener::Leaf& place, const isam::Item& item) {
  bool equal = place.equal;
  bool same_number = place.same_number;
  if (place.slot == 0) {
    equal = last_key_ != nullptr && order_->compare(last_key_, item.key) == 0;
    same_number = equal && last_number_ == item.dupnm;
  }
  const bool unique = (key_.flags & KF_DUPS) == 0;
  if (equal && unique) {
    ++equal_;
    tell("index.keys-equal", "key of the item before it in an index without duplicates", place,
         item.recptr, item.key);
  } else if (same_number) {
    ++same_number_;
    tell("index.numbers-equal", "key and duplicate number of the item before it", place,
         item.recptr, item.key);
  }
}

// Most keys are found right in the mapping of the data file. What is not is read as ever.
void KeyCheck::flush() {
  const isam::KeepError keep;
  std::array<bool, kBatch> right{};
  bool is_mapped = false;
  const auto look = [&](isam::ConstBytes all) { is_mapped = compare_mapped(all, right); };
  const bool is_whole = isam::filep->data.map.read_by(look);
  for (std::size_t at = 0; at < records_.size(); ++at) {
    if (is_whole && is_mapped && right[at]) continue;
    compare({records_[at], places_[at].node, places_[at].slot, key_at(at)});
  }
  records_.clear();
  places_.clear();
}

// Which keys of the batch are those of the records; false when the bytes do not hold them all.
bool KeyCheck::compare_mapped(isam::ConstBytes all, std::array<bool, kBatch>& right) const {
  constexpr std::size_t kAhead = 8;
  const auto slot = static_cast<std::size_t>(isam::slot_size());
  const auto end = static_cast<std::size_t>(records_.empty() ? 0 : std::ranges::max(records_));
  if (all.size() / slot < end) return false;
  const auto record_at = [&](std::size_t at) {
    return all.data() + (static_cast<std::size_t>(records_[at]) - 1) * slot;
  };
  for (std::size_t at = 0; at < records_.size(); ++at) {
    if (at + kAhead < records_.size()) {
      for (int i = 0; i < key_.nparts; ++i) {
        __builtin_prefetch(record_at(at + kAhead) + key_.part[i].start);
      }
    }
    right[at] = has_key(record_at(at), key_, key_at(at));
  }
  return true;
}

// What cannot be read because of the file's bytes has been told as a bad record.
void KeyCheck::compare(const Met& met) {
  if (!read_fixed_part(met.record, bytes_)) return collector_.pass_over_error();
  if (has_key(bytes_.data(), key_, met.key)) return;
  ++differing_;
  isam::Item own;
  isam::itmake(bytes_.data(), own, key_);
  collector_.add({.kind = Entry::Kind::kDetail,
                  .code = "index.key-differs",
                  .key = number_,
                  .text = "key that is not its record's",
                  .fields = {{"record", std::int64_t{met.record}},
                             {"node", std::int64_t{met.node}},
                             {"slot", std::int64_t{met.slot}},
                             {"key", key_value(key_, met.key)},
                             {"record-key", key_value(key_, own.key)}}});
}

void KeyCheck::tell(const char* code, const char* text, const checker::Listener::Leaf& place,
                    std::int32_t record, const isam::Byte* key) {
  collector_.add({.kind = Entry::Kind::kDetail,
                  .code = code,
                  .key = number_,
                  .text = text,
                  .fields = {{"record", std::int64_t{record}},
                             {"node", std::int64_t{place.node}},
                             {"slot", std::int64_t{place.slot}},
                             {"key", key_value(key_, key)}}});
}

void KeyCheck::tell_count(const char* code, const char* text, std::int64_t count) {
  if (count == 0) return;
  collector_.add({.code = code,
                  .status = Status::kDamaged,
                  .key = number_,
                  .text = fmt::format("{} {}", count, text),
                  .fields = {{"found", count}}});
}

void KeyCheck::ends() {
  if (sorter_) compare_sorted();
  flush();
  tell_count("index.key-differs", "item(s) with a key that is not their record's", differing_);
  tell_count("index.keys-equal", "item(s) with the key of another, in an index without duplicates",
             equal_);
  tell_count("index.numbers-equal", "item(s) with key and duplicate number of another",
             same_number_);
}

}  // namespace zentra
