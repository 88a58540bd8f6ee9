// floor_index: the indexes of the floors: nodes of both keys in arrays, a level each, and nothing
// else. Keys are where they would be if records had come in their order, and no node is split. A
// change moves bytes to and fro: what is searched stays the same.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "bench/stores/mapped_file.h"
#include "bench/stores/records.h"

namespace bench {

constexpr std::size_t kNode = 1024;
constexpr std::size_t kItem = kKeyLength + sizeof(std::uint32_t);  // of the first key

using Node = std::span<char>;

// The nodes of one level of an index, which grows as records come.
class Level {
 public:
  using Fill = void (*)(std::uint32_t node, Node bytes, std::uint32_t below);
  // `below`: what an item covers, in items of the lowest level.
  explicit Level(Fill fill, std::uint32_t below = 1) : fill_(fill), below_(below) {}

  Node at(std::uint32_t node) {
    while (node >= count_) grow();
    return std::span{bytes_}.subspan(node * kNode, kNode);
  }
  // Moves what stands behind `from` in the node, to and fro, by way of a copy of the whole node.
  void move_rest(std::uint32_t node, std::size_t from);
  void write_changed(const MappedFile& file);

 private:
  void grow();

  Fill fill_;
  std::uint32_t below_;
  std::size_t count_ = 0;
  std::vector<char> bytes_;
  std::vector<bool> changed_;  // pages of the system
  std::array<char, kNode> before_{};
};

// Items of a leaf of each key.
inline constexpr std::uint32_t kItemsOfFirst = 60;
inline constexpr std::uint32_t kItemsOfSecond = 85;

class FloorIndex {
 public:
  FloorIndex();

  // An item of the first key.
  struct Place {
    std::uint32_t leaf;
    std::size_t offset;
  };

  // Where the items of a record stand that was added before there were so many others.
  [[nodiscard]] static Place place_in_order(std::uint32_t number);
  // Searches a node of each level by halves, from the root down.
  Place find(std::uint32_t number, std::uint32_t records);
  // The slot of a record, from its item.
  std::uint32_t slot_at(const Place& place);
  // The leaf of the first key that the change of an item of such a record moves.
  std::uint32_t change_first(std::uint32_t number, std::uint32_t records);
  void take_out(const Place& place) { first_.levels[0].move_rest(place.leaf, place.offset); }
  // ... and of the second one. It is anywhere, and so is the key's place in each node on the way:
  // upper ones are searched by halves, the leaf is walked over up to it.
  std::uint32_t change_second(const char* record, std::uint32_t records);

  Level& first_leaves() { return first_.levels[0]; }
  Level& second_leaves() { return second_.levels[0]; }

 private:
  struct Tree {
    Tree(Level::Fill leaf, Level::Fill upper, std::uint32_t below);
    // The level of the root over so many leaves.
    [[nodiscard]] std::size_t top(std::uint32_t leaves) const;

    std::uint32_t items;        // of an upper node
    std::vector<Level> levels;  // the leaves first
  };

  Tree first_;
  Tree second_;
};

// In which leaf of the first key the item of a record goes that comes when there are so many, in
// whatever order they come: the number that has its item there.
std::uint32_t number_in_some_leaf(std::uint32_t number, std::uint32_t records);

}  // namespace bench
