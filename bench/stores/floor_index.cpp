#include "bench/stores/floor_index.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace bench {
namespace {

constexpr std::size_t kSystemPage = 4096;
constexpr std::size_t kLevels = 5;
constexpr std::uint32_t kItemsAboveSecond = 30;
constexpr std::size_t kNumbers = 6;  // behind an item's key: of its place among equals, record
constexpr std::size_t kCounts = 2;   // before it: of bytes that it leaves out
constexpr std::size_t kItemAboveSecond = kSecondLength + kNumbers;
constexpr unsigned char kRepeatBit = 0x80;  // of an item that the next one repeats
constexpr unsigned char kMatch = 3;         // leading bytes that all keys of a node share

// Keys in order, each with the number of what it leads to.
void fill_first(std::uint32_t node, Node bytes, std::uint32_t below) {
  for (std::uint32_t i = 0; i < kItemsOfFirst; ++i) {
    const std::uint32_t number = node * kItemsOfFirst + i;
    const std::uint64_t least = std::uint64_t{number} * below;
    const auto key = static_cast<std::uint32_t>(std::min<std::uint64_t>(least, kMaxRecords - 1));
    std::memcpy(&bytes[i * kItem], key_of(key).data(), kKeyLength);
    std::memcpy(&bytes[i * kItem + kKeyLength], &number, sizeof number);
  }
}

// An item that stores a key but for its first `leading` bytes, or none: where the next one begins.
std::size_t put_item(Node bytes, std::size_t at, int leading, bool repeats, bool is_repeated) {
  if (!repeats) {
    bytes[at] = static_cast<char>(leading);
    at += kCounts + kSecondLength - static_cast<std::size_t>(leading);
  }
  at += kNumbers;
  if (is_repeated) bytes[at - sizeof(std::uint32_t)] = static_cast<char>(kRepeatBit);
  return at;
}

// Items of groups that share a key: ten on average, one to nineteen.
void fill_second(std::uint32_t node, Node bytes, std::uint32_t /*below*/) {
  std::size_t at = 0;
  for (std::uint32_t item = 0, group = 0; item < kItemsOfSecond; ++group) {
    const std::uint64_t bits = scramble(std::uint64_t{node} << 16 | group);
    const auto items = static_cast<std::uint32_t>(1 + bits % (2 * kDuplicates - 1));
    for (std::uint32_t i = 0; i < items && item < kItemsOfSecond; ++i, ++item) {
      const bool is_last = i + 1 == items || item + 1 == kItemsOfSecond;
      if (at + kCounts + kSecondLength + kNumbers > kNode) return;
      at = put_item(bytes, at, 7, i > 0, !is_last);
    }
  }
}

// Whole keys at equal distances: upper nodes change seldom, so a program may keep them so.
void fill_above_second(std::uint32_t /*node*/, Node bytes, std::uint32_t /*below*/) {
  for (std::uint64_t i = 0; i < kItemsAboveSecond; ++i) {
    const std::uint64_t key = __builtin_bswap64(i * (UINT64_MAX / kItemsAboveSecond));
    std::memcpy(&bytes[i * kItemAboveSecond], &key, sizeof key);
  }
}

// Goes over the items before `stop`, from the first one on: where it comes to.
std::size_t walk(std::span<const char> node, std::size_t stop) {
  std::size_t at = 0;
  bool repeats = false;
  while (at < stop) {
    if (!repeats) {
      const auto leading = static_cast<unsigned char>(node[at]);
      if (leading <= kMatch) throw std::runtime_error("a key is where none should be");
      at += kCounts + kSecondLength - leading - static_cast<unsigned char>(node[at + 1]);
    }
    at += kNumbers;
    repeats = (static_cast<unsigned char>(node[at - sizeof(std::uint32_t)]) & kRepeatBit) != 0;
  }
  return at;
}

// The last of so many items of `size` bytes whose key does not begin with more than `sought`.
std::size_t halve(std::span<const char> node, std::uint64_t sought, std::size_t items,
                  std::size_t size) {
  std::size_t low = 0;
  for (std::size_t left = items; left > 1;) {
    const std::size_t half = left / 2;
    std::uint64_t middle = 0;
    std::memcpy(&middle, &node[(low + half) * size], sizeof middle);
    low += __builtin_bswap64(middle) <= sought ? half : 0;
    left -= half;
  }
  return low * size;
}

// The last item of a node whose key is not above another one.
std::size_t search(std::span<const char> node, const Key& key) {
  std::uint64_t sought = 0;
  std::memcpy(&sought, key.data(), sizeof sought);
  return halve(node, __builtin_bswap64(sought), kItemsOfFirst, kItem);
}

}  // namespace

void Level::move_rest(std::uint32_t node, std::size_t from) {
  const Node bytes = at(node);
  std::memcpy(before_.data(), bytes.data(), kNode);
  std::memcpy(bytes.data() + from, before_.data() + from, kNode - from);
  changed_[node * kNode / kSystemPage] = true;
}

void Level::write_changed(const MappedFile& file) {
  for (std::size_t page = 0; page < changed_.size(); ++page) {
    if (changed_[page]) file.write({&bytes_[page * kSystemPage], kSystemPage}, page * kSystemPage);
    changed_[page] = false;
  }
}

void Level::grow() {
  const std::size_t before = count_;
  count_ = std::max<std::size_t>(2 * before, kSystemPage / kNode);
  bytes_.resize(count_ * kNode);
  changed_.resize(bytes_.size() / kSystemPage);
  for (std::size_t node = before; node < count_; ++node) {
    fill_(static_cast<std::uint32_t>(node), std::span{bytes_}.subspan(node * kNode, kNode), below_);
  }
}

FloorIndex::Tree::Tree(Level::Fill leaf, Level::Fill upper, std::uint32_t below) : items(below) {
  levels.emplace_back(leaf);
  for (std::uint32_t covers = below; levels.size() < kLevels; covers *= below) {
    levels.emplace_back(upper, covers);
  }
}

std::size_t FloorIndex::Tree::top(std::uint32_t leaves) const {
  std::size_t level = 0;
  for (; leaves > 1 && level + 1 < kLevels; ++level) leaves = (leaves + items - 1) / items;
  return level;
}

FloorIndex::FloorIndex()
    : first_(fill_first, fill_first, kItemsOfFirst),
      second_(fill_second, fill_above_second, kItemsAboveSecond) {}

FloorIndex::Place FloorIndex::place_in_order(std::uint32_t number) {
  return {number / kItemsOfFirst, number % kItemsOfFirst * kItem};
}

std::uint32_t FloorIndex::slot_at(const Place& place) {
  std::uint32_t slot = 0;
  std::memcpy(&slot, first_.levels[0].at(place.leaf).data() + place.offset + kKeyLength,
              sizeof slot);
  return slot;
}

FloorIndex::Place FloorIndex::find(std::uint32_t number, std::uint32_t records) {
  const Key key = key_of(number);
  Place place{0, 0};
  const std::uint32_t leaves = std::max(records, number + 1) / kItemsOfFirst + 1;
  for (std::size_t level = first_.top(leaves); level > 0; --level) {
    const std::span<const char> node = first_.levels[level].at(place.leaf);
    std::memcpy(&place.leaf, &node[search(node, key) + kKeyLength], sizeof place.leaf);
  }
  const std::span<const char> node = first_.levels[0].at(place.leaf);
  place.offset = search(node, key);
  if (std::memcmp(key.data(), &node[place.offset], kKeyLength) != 0) {
    throw std::runtime_error("a key is not where it should be");
  }
  return place;
}

std::uint32_t FloorIndex::change_first(std::uint32_t number, std::uint32_t records) {
  const Place place = find(number, records);
  take_out(place);
  return place.leaf;
}

std::uint32_t FloorIndex::change_second(const char* record, std::uint32_t records) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, record + kSecondStart, sizeof bits);
  bits = scramble(bits);
  const std::uint32_t leaves = std::max(records / kItemsOfSecond, 1U);
  const auto leaf = static_cast<std::uint32_t>(bits % leaves);
  for (std::size_t level = second_.top(leaves); level > 0; --level) {
    std::uint32_t node = leaf;
    for (std::size_t i = 0; i < level; ++i) node /= kItemsAboveSecond;
    const Node upper = second_.levels[level].at(node);
    const std::size_t at = halve(upper, bits << (8 * level), kItemsAboveSecond, kItemAboveSecond);
    if (at + kItemAboveSecond > kNode) throw std::runtime_error("an item is where none should be");
  }
  constexpr std::size_t kUsedOfLeaf = 560;
  const std::size_t at = walk(second_.levels[0].at(leaf), (bits >> 40) % kUsedOfLeaf);
  second_.levels[0].move_rest(leaf, at);
  return leaf;
}

std::uint32_t number_in_some_leaf(std::uint32_t number, std::uint32_t records) {
  if (number == records) return number;
  const std::uint32_t leaves = std::max(records / kItemsOfFirst, 1U);
  const auto leaf = static_cast<std::uint32_t>(scramble(number) % leaves);
  return leaf * kItemsOfFirst + number % kItemsOfFirst;
}

}  // namespace bench
