#include "isam/tree/uppernodes.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <span>
#include <utility>
#include <vector>

namespace isam {
namespace {

constexpr int kPlaceBits = 12;
constexpr std::size_t kMostBytes = 4096;  // of a node's items
constexpr std::size_t kMostKept = kMostBytes / (1 + kRecordPointerSize);

constexpr std::int32_t kMissesOfItself = 2;
constexpr std::int32_t kMissesOfOthers = 64;

// The nodes kept, each in the place that its number gives.
std::vector<UpperNode> upper_nodes;

UpperNode& place_of(std::int32_t number) {
  // 2^32 divided by the golden ratio: a bulk load's upper nodes have numbers at regular distances.
  constexpr std::uint32_t kSpread = 0x9E3779B9U;
  return upper_nodes[static_cast<std::uint32_t>(number) * kSpread >> (32 - kPlaceBits)];
}

std::uint32_t shape_of(const ItemLayout& layout) {
  const auto bit = [](bool set, int at) { return std::uint32_t{set} << at; };
  return static_cast<std::uint32_t>(layout.keylen) << 16 | bit(layout.dcompress, 0) |
         bit(layout.lcompress, 1) | bit(layout.tcompress, 2) |
         static_cast<std::uint32_t>(layout.dupwidth) << 3;
}

}  // namespace

void expect_upper(std::int32_t number) {
  if (!upper_nodes.empty()) common::prefetch(&place_of(number));
}

const UpperNode* find_upper(std::int32_t number, const ItemLayout& layout) {
  if (upper_nodes.empty()) return nullptr;
  const UpperNode& kept = place_of(number);
  const bool is_it =
      kept.number_ == number && kept.stamp_.stands_again() && kept.shape_ == shape_of(layout);
  if (!is_it) return nullptr;
  common::prefetch(kept.heads(), kept.count_ * UpperNode::kHeadSize);
  return &kept;
}

// False when these bytes make no items, or more than are kept.
bool UpperNode::read(ConstBytes area, const ItemLayout& layout) {
  const auto size = static_cast<std::size_t>(layout.fixed_size());
  const auto keylen = static_cast<std::size_t>(layout.keylen);
  std::array<Byte, kMostBytes + kHeadSize> items;
  std::array<ItemPlace, kMostKept + 1> places;
  std::size_t count = 0;
  Item item;
  length_ = static_cast<int>(area.size());
  for (int at = 0; at < length_; ++count) {
    const int end = itunpack(layout, area, at, count > 0 ? item.key : kNoKey, item);
    if (end < 0 || (count + 1) * size > kMostBytes) return false;
    Byte* const to = &items[count * size];
    std::memcpy(to, item.key, keylen);
    std::memcpy(to + keylen, &area[static_cast<std::size_t>(end) - (size - keylen)], size - keylen);
    places[count] = {item.recptr, static_cast<std::uint16_t>(at)};
    at = end;
  }
  const std::size_t room = count + count / 2 + 1;  // for insertions
  heads_.reset(new Byte[room * (kHeadSize + size)]);
  places_.reset(new ItemPlace[room + 1]);
  count_ = static_cast<std::uint16_t>(count);
  room_ = static_cast<std::uint16_t>(room);
  for (std::size_t i = 0; i < count; ++i) {
    std::memcpy(&heads_[i * kHeadSize], &items[i * size], kHeadSize);
  }
  std::memcpy(&heads_[room * kHeadSize], items.data(), count * size);
  places[count] = {0, static_cast<std::uint16_t>(length_)};
  std::copy_n(places.begin(), count + 1, places_.get());
  return count > 0;
}

// False when there is no room, or no item at `start`.
bool UpperNode::insert(ConstBytes area, const ItemLayout& layout, int start, const Item& item,
                       const Item& next) {
  const std::span places{places_.get(), std::size_t{count_} + 1};
  const auto found = std::ranges::lower_bound(places, start, {}, &ItemPlace::start);
  const auto at = static_cast<std::size_t>(found - places.begin());
  if (count_ == room_ || at >= count_ || found->start != start) return false;
  const auto size = static_cast<std::size_t>(layout.fixed_size());
  const auto keylen = static_cast<std::size_t>(layout.keylen);
  Byte* const new_head = &heads_[at * kHeadSize];
  Byte* const new_item = &heads_[room_ * kHeadSize + at * size];
  const std::size_t behind = count_ - at;
  std::memmove(new_head + kHeadSize, new_head, behind * kHeadSize);
  std::memmove(new_item + size, new_item, behind * size);
  std::memmove(&places_[at + 1], &places_[at], (behind + 1) * sizeof(ItemPlace));
  ++count_;

  const int end = start + item.totln;
  std::memcpy(new_item, item.key, keylen);
  std::memcpy(new_item + keylen, &area[static_cast<std::size_t>(end) - (size - keylen)],
              size - keylen);
  std::memcpy(new_item + size, next.key, keylen);
  std::memcpy(new_head, new_item, kHeadSize);
  std::memcpy(new_head + kHeadSize, new_item + size, std::min(kHeadSize, size));
  places_[at] = {item.recptr, static_cast<std::uint16_t>(start)};
  places_[at + 1].start = static_cast<std::uint16_t>(end);
  const auto length = static_cast<int>(area.size());
  const int grown = length - std::exchange(length_, length);
  for (ItemPlace& place : std::span{places_.get(), std::size_t{count_} + 1}.subspan(at + 2)) {
    place.start = static_cast<std::uint16_t>(place.start + grown);
  }
  return true;
}

void UpperNode::insert(TreeNode& node, const ItemLayout& layout, int start, const Item& item,
                       const Item& next) {
  const bool is_in = insert(node.area(), layout, start, item, next);
  stamp_ = is_in ? PageStamp{node.page()} : PageStamp{};
}

UpperNode* kept_upper(std::int32_t number, const PageHold& page, const ItemLayout& layout) {
  if (upper_nodes.empty()) return nullptr;
  UpperNode& kept = place_of(number);
  const bool is_it =
      kept.number_ == number && kept.stamp_.is_of(page) && kept.shape_ == shape_of(layout);
  return is_it ? &kept : nullptr;
}

void note_upper(std::int32_t number, TreeNode& node, const ItemLayout& layout) {
  try {
    if (upper_nodes.empty()) upper_nodes.resize(std::size_t{1} << kPlaceBits);
    UpperNode& kept = place_of(number);
    const bool is_free = kept.number_ == 0 || kept.number_ == number;
    if (++kept.misses_ < (is_free ? kMissesOfItself : kMissesOfOthers)) return;
    kept.stamp_ = {};
    kept.number_ = number;
    const bool is_read = kept.read(node.area(), layout);
    kept.misses_ = is_read ? 0 : -kMissesOfOthers;
    if (!is_read) return;
    kept.shape_ = shape_of(layout);
    kept.is_above_leaves_ = node.page().level() == kLeafLevel + 1;
    kept.stamp_ = PageStamp{node.page()};
  } catch (const std::bad_alloc&) {
    // It is read from its page as before.
  }
}

}  // namespace isam
