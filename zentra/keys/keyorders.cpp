#include "zentra/keys/keyorders.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zentra {
namespace {

isam::KeyOrder order_of(int type, int length) {
  keydescr k{};
  k.nparts = 1;
  k.keylen = static_cast<std::int16_t>(length);
  k.part[0].length = k.keylen;
  k.part[0].type = static_cast<std::int16_t>(type);
  return isam::KeyOrder(k);
}

}  // namespace

void KeyOrders::Both::note(int order) {
  if (order > 0) ascending = false;
  if (order < 0) descending = false;
}

KeyOrders::KeyOrders(const keydescr& layout, std::vector<KeyRun> runs)
    : layout_(layout),
      keylen_(layout.keylen),
      runs_(std::move(runs)),
      numbers_{{{KT_DOUBLE, 8, order_of(KT_DOUBLE, 8)},
                {KT_FLOAT, 4, order_of(KT_FLOAT, 4)},
                {KT_LONG, 4, order_of(KT_LONG, 4)},
                {KT_INT, 2, order_of(KT_INT, 2)}}},
      bytes_(static_cast<std::size_t>(keylen_)),
      text_(static_cast<std::size_t>(keylen_), true),
      collated_(runs_.size(), true) {
  orders_.fill(bytes_);
}

void KeyOrders::note_bytes(const isam::Item& item) {
  for (int i = 0; i < keylen_; ++i) {
    if (item.key[i] < ' ' || item.key[i] > '~') text_[static_cast<std::size_t>(i)] = false;
  }
}

// `at`: where the two keys first differ.
void KeyOrders::compare(const isam::Item& item, int at) {
  bytes_[static_cast<std::size_t>(at)].note(int{before_.key[at]} - int{item.key[at]});
  for (std::size_t n = 0; n < numbers_.size(); ++n) {
    const int length = numbers_[n].length;
    const int last = std::min(at, keylen_ - length);
    for (int from = std::max(0, at - length + 1); from <= last; ++from) {
      orders_[n][static_cast<std::size_t>(from)].note(
          numbers_[n].order.compare(before_.key + from, item.key + from));
    }
  }
  const auto run = std::ranges::find_if(
      runs_, [at](const KeyRun& one) { return at >= one.from && at < one.end; });
  const auto rest = static_cast<std::size_t>(keylen_ - run->end);
  // Under such an order the keys would be equal, and the later one have the greater number.
  const bool would_be_equal = std::memcmp(before_.key + run->end, item.key + run->end, rest) == 0;
  if (would_be_equal && (!layout_.dups || item.dupnm <= before_.dupnm)) {
    collated_[static_cast<std::size_t>(run - runs_.begin())] = false;
  }
}

bool KeyOrders::next(const isam::Item& item) {
  note_bytes(item);
  repeats_ = repeats_ || (item.flag & isam::kRepeatsPrevious) != 0;
  bool is_first = true;
  if (items_ > 0) {
    const auto at = std::mismatch(item.key, item.key + keylen_, before_.key).first - item.key;
    if (at < keylen_) {
      compare(item, static_cast<int>(at));
      const bool could_lead = layout_.lcompress && item.leadc == 0 && at > 0;
      badly_pressed_ += could_lead ? 1 : 0;
    } else if (!layout_.dups || item.dupnm <= before_.dupnm) {
      return false;
    } else {
      is_first = false;
    }
  }
  const bool could_tail = layout_.tcompress && item.tailc == 0 && item.key[keylen_ - 1] == ' ' &&
                          (item.flag & isam::kRepeatsPrevious) == 0;
  badly_pressed_ += could_tail ? 1 : 0;
  firsts_ += is_first ? 1 : 0;
  first_zero_ += is_first && item.dupnm == 0 ? 1 : 0;
  ++items_;
  before_ = item;
  return true;
}

bool KeyOrders::is_text(int from, int end) const {
  return std::all_of(text_.begin() + from, text_.begin() + end, [](bool text) { return text; });
}

std::vector<int> KeyOrders::types_of(int from, int end) const {
  std::vector<int> types;
  const auto add = [&](int type, const Both& order) {
    if (order.ascending) types.push_back(type);
    if (order.descending) types.push_back(type | KT_DESC);
  };
  Both characters;
  for (int i = from; i < end; ++i) {
    const Both& one = bytes_[static_cast<std::size_t>(i)];
    characters.ascending = characters.ascending && one.ascending;
    characters.descending = characters.descending && one.descending;
  }
  add(KT_CHAR, characters);
  for (std::size_t n = 0; n < numbers_.size(); ++n) {
    if (numbers_[n].length == end - from) {
      add(numbers_[n].type, orders_[n][static_cast<std::size_t>(from)]);
    }
  }
  return types;
}

}  // namespace zentra
