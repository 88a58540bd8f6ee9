// tree_writer: the tree of one index, built bottom-up from the keys of all records.
#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <stdexcept>
#include <vector>

#include "tests/support/index_nodes.h"
#include "tests/support/key_order.h"
#include "tests/support/pair_builder.h"

namespace testing_support {

// The records in use, and the bytes of their keys in one index one behind the other.
struct KeysOfRecords {
  const std::vector<std::int32_t>& records;
  const Image& keys;
};

// Writes the tree of one index into nodes.
class TreeWriter {
 public:
  TreeWriter(const PairSpec& spec, const KeySpec& key, IndexNodes& nodes)
      : spec_(spec), key_(key), nodes_(nodes) {}

  BuiltIndex run(const KeysOfRecords& from, std::int32_t root) {
    std::size_t width = 0;
    for (const PartSpec& part : key_.parts) width += static_cast<std::size_t>(part.length);
    const auto key_at = [&](std::uint32_t i) { return from.keys.data() + i * width; };
    std::vector<std::uint32_t> order(from.records.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
      return compare(key_at(a), key_at(b)) < 0;
    });
    std::int32_t dup = 0;
    for (std::size_t i = 0; i < order.size(); ++i) {
      const bool again = i > 0 && compare(key_at(order[i - 1]), key_at(order[i])) == 0;
      dup = again && (key_.flags & kDups) != 0 ? dup + 1 : 0;
      const Byte* key = key_at(order[i]);
      add_item(0, {{key, key + width}, from.records[order[i]], dup});
    }
    finish(root);
    built_.root = root;
    return built_;
  }

 private:
  struct Entry {
    std::vector<Byte> key;
    std::int32_t pointer;
    std::int32_t dup;
  };
  struct OpenNode {
    Image area;
    Entry last;
    int last_tail = 0;
    bool last_stored = true;
    int last_pointer_at = 0;
  };

  int compare(const Byte* left, const Byte* right) const {
    for (const PartSpec& part : key_.parts) {
      const int result = compare_part(part.type, part.length, left, right);
      if (result != 0) return result;
      left += part.length;
      right += part.length;
    }
    return 0;
  }

  [[nodiscard]] int dup_width() const { return (key_.flags & kDups) != 0 ? spec_.dup_width : 0; }

  static int extent(const std::vector<Byte>& key) {
    int length = static_cast<int>(key.size());
    while (length > 0 && key[static_cast<std::size_t>(length) - 1] == ' ') --length;
    return length;
  }

  // The stored bytes of an item behind the node's last one, without its record pointer's mark.
  Image stored_form(const OpenNode& open, const Entry& item, bool& repeats, int& tail) const {
    const int width = static_cast<int>(item.key.size());
    const bool first = open.area.empty();
    repeats = !first && (key_.flags & kDCompress) != 0 && item.key == open.last.key;
    tail = 0;
    Image bytes;
    if (!repeats) {
      int most_shared = width - 1;
      if ((key_.flags & kTCompress) != 0) {
        tail = width - extent(item.key);
        most_shared = width - tail;
      }
      int lead = 0;
      if ((key_.flags & kLCompress) != 0) {
        if (!first) {
          const int kept = open.last_stored ? width - open.last_tail : extent(open.last.key);
          while (lead < std::min(most_shared, kept) &&
                 item.key[static_cast<std::size_t>(lead)] ==
                     open.last.key[static_cast<std::size_t>(lead)]) {
            ++lead;
          }
        }
        bytes.push_back(static_cast<Byte>(lead));
      }
      if ((key_.flags & kTCompress) != 0) bytes.push_back(static_cast<Byte>(tail));
      bytes.insert(bytes.end(), item.key.begin() + lead, item.key.end() - tail);
    }
    const int dups = dup_width();
    bytes.resize(bytes.size() + static_cast<std::size_t>(dups) + 4);
    Byte* end = bytes.data() + bytes.size();
    if (dups == 4) put4(end - 8, item.dup);
    if (dups == 2) put2(end - 6, item.dup);
    put4(end - 4, item.pointer);
    return bytes;
  }

  void add_item(std::size_t level, const Entry& item) {
    if (level == levels_.size()) levels_.emplace_back();
    const auto limit =
        static_cast<std::size_t>(static_cast<double>(nodes_.stored_size() - 4) * spec_.fill);
    bool repeats = false;
    int tail = 0;
    Image bytes = stored_form(levels_[level], item, repeats, tail);
    if (!levels_[level].area.empty() && levels_[level].area.size() + bytes.size() > limit) {
      close_node(level);
      bytes = stored_form(levels_[level], item, repeats, tail);
    }
    if (bytes.size() > static_cast<std::size_t>(nodes_.stored_size() - 4)) {
      throw std::runtime_error("a key does not fit a node");
    }
    OpenNode& open = levels_[level];
    if (repeats) open.area[static_cast<std::size_t>(open.last_pointer_at)] |= 0x80;
    open.area.insert(open.area.end(), bytes.begin(), bytes.end());
    open.last_pointer_at = static_cast<int>(open.area.size()) - 4;
    open.last = item;
    open.last_tail = tail;
    open.last_stored = !repeats;
  }

  void put_node(std::size_t level, std::int32_t into) {
    const OpenNode& open = levels_[level];
    std::copy(open.area.begin(), open.area.end(), nodes_.at(into) + 2);
    nodes_.set_frame(into, static_cast<int>(open.area.size()) + 2, 0, static_cast<int>(level));
    (level == 0 ? built_.leaves : built_.uppers).push_back(into);
  }

  void close_node(std::size_t level) {
    const std::int32_t into = nodes_.take();
    put_node(level, into);
    Entry separator = levels_[level].last;
    separator.pointer = into;
    levels_[level] = OpenNode{};
    add_item(level + 1, separator);
  }

  void finish(std::int32_t root) {
    if (levels_.empty()) levels_.emplace_back();
    std::size_t top = 0;
    for (; top + 1 < levels_.size(); ++top) close_node(top);
    put_node(top, root);
  }

  const PairSpec& spec_;
  const KeySpec& key_;
  IndexNodes& nodes_;
  BuiltIndex built_;
  std::vector<OpenNode> levels_;
};

}  // namespace testing_support
