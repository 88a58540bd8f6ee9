#include "isam/tree/uppernodes.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
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
  if (!upper_nodes.empty()) __builtin_prefetch(&place_of(number));
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
  count_ = count;
  heads_.reset(new Byte[count * (kHeadSize + size)]);
  places_.reset(new ItemPlace[count + 1]);
  for (std::size_t i = 0; i < count; ++i) {
    std::memcpy(&heads_[i * kHeadSize], &items[i * size], kHeadSize);
  }
  std::memcpy(&heads_[count * kHeadSize], items.data(), count * size);
  places[count] = {0, static_cast<std::uint16_t>(length_)};
  std::copy_n(places.begin(), count + 1, places_.get());
  return count > 0;
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
