#include "zentra/keycheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/pool/buffers.h"
#include "isam/records/datafile.h"
#include "isam/tree/items.h"

namespace zentra {
namespace {

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
  keys_.resize(kBatch * static_cast<std::size_t>(k.keylen));
  bytes_.resize(kBatch * static_cast<std::size_t>(isam::filep->geometry.maxreclen));
}

void KeyCheck::item(const checker::Listener::Leaf& place, const isam::Item& item) {
  ++items_;
  if (compares_) check_equal(place, item);
  const auto size = static_cast<std::size_t>(key_.keylen);
  // The key of the batch before stays readable when a new one begins.
  isam::Byte* const key = keys_.data() + records_.size() * size;
  std::memcpy(key, item.key, size);
  last_key_ = key;
  last_number_ = item.dupnm;
  records_.push_back(item.recptr);
  places_.push_back(place);
  if (records_.size() == kBatch) flush();
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

void KeyCheck::flush() {
  const isam::KeepError keep;
  const auto room = static_cast<std::size_t>(isam::filep->geometry.maxreclen);
  std::array<std::int32_t, kBatch> lengths;
  std::size_t read = 0;
  if (!isam::filep->geometry.varlen) {
    read = isam::dataread_many(records_, bytes_.data(), lengths.data());
  }
  for (std::size_t at = 0; at < records_.size(); ++at) {
    isam::Byte* const record = bytes_.data() + at * room;
    // What cannot be read has been told as a bad record.
    if (at < read || read_fixed_part(records_[at], {record, room})) compare(at, record);
  }
  records_.clear();
  places_.clear();
}

void KeyCheck::compare(std::size_t at, const isam::Byte* record) {
  const isam::Byte* const key = keys_.data() + at * static_cast<std::size_t>(key_.keylen);
  if (has_key(record, key_, key)) return;
  ++differing_;
  isam::Item own;
  isam::itmake(record, own, key_);
  collector_.add({.kind = Entry::Kind::kDetail,
                  .code = "index.key-differs",
                  .key = number_,
                  .text = "key that is not its record's",
                  .fields = {{"record", std::int64_t{records_[at]}},
                             {"node", std::int64_t{places_[at].node}},
                             {"slot", std::int64_t{places_[at].slot}},
                             {"key", key_value(key_, key)},
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
  flush();
  tell_count("index.key-differs", "item(s) with a key that is not their record's", differing_);
  tell_count("index.keys-equal", "item(s) with the key of another, in an index without duplicates",
             equal_);
  tell_count("index.numbers-equal", "item(s) with key and duplicate number of another",
             same_number_);
}

}  // namespace zentra
