#include "tests/support/pair_builder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <numeric>
#include <stdexcept>

namespace testing_support {
namespace {

// A small generator with the same numbers on every platform.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed * 2654435761u + 88172645463325252u) {}
  std::uint32_t operator()(std::uint32_t below) {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return static_cast<std::uint32_t>((state_ >> 16) % below);
  }

 private:
  std::uint64_t state_;
};

int key_length(const KeySpec& key) {
  return std::accumulate(key.parts.begin(), key.parts.end(), 0,
                         [](int sum, const PartSpec& part) { return sum + part.length; });
}

void put_value(Byte* at, const PartSpec& part, Random& random) {
  const int small = static_cast<int>(random(40)) - 20;
  switch (part.type & ~kDescending) {
    case kInt:
      return put2(at, small);
    case kLong:
      return put4(at, small * 1000);
    case kDouble: {
      const double value = small / 4.0;
      std::memcpy(at, &value, sizeof value);
      if (random(10) == 0) std::memset(at, 0xFF, sizeof value);
      return;
    }
    case kFloat: {
      const float value = static_cast<float>(small) / 4;
      std::memcpy(at, &value, sizeof value);
      if (random(6) == 0) std::memset(at, 0xFF, sizeof value);
      return;
    }
    default: {
      std::memset(at, ' ', static_cast<std::size_t>(part.length));
      const int letters = static_cast<int>(random(static_cast<std::uint32_t>(part.length))) / 2 + 1;
      for (int i = 0; i < std::min(letters, part.length); ++i) {
        at[i] = static_cast<Byte>('A' + random(i < 2 ? 3 : 26));
      }
    }
  }
}

// The unique key: a number spread over the range and written in letters.
void put_unique(Byte* at, const PartSpec& part, int number) {
  std::memset(at, ' ', static_cast<std::size_t>(part.length));
  std::uint64_t spread = static_cast<std::uint64_t>(number) * 2654435761u % 4294967291u;
  for (int i = std::min(part.length, 8); i-- > 0; spread /= 26) {
    at[i] = static_cast<Byte>('A' + spread % 26);
  }
}

template <typename T>
int ordered(T a, T b) {
  return (a > b) - (a < b);
}

template <typename T>
int ordered_numbers(const Byte* a, const Byte* b) {
  const auto is_null = [](const Byte* at) {
    return std::all_of(at, at + sizeof(T), [](Byte byte) { return byte == 0xFF; });
  };
  if (is_null(a) || is_null(b)) return ordered(is_null(b), is_null(a));
  T left;
  T right;
  std::memcpy(&left, a, sizeof left);
  std::memcpy(&right, b, sizeof right);
  return ordered(left, right);
}

int compare_part(const PartSpec& part, const Byte* a, const Byte* b) {
  switch (part.type & ~kDescending) {
    case kInt:
      return ordered<int>(static_cast<std::int16_t>(get2(a)), static_cast<std::int16_t>(get2(b)));
    case kLong:
      return ordered(get4(a), get4(b));
    case kDouble:
      return ordered_numbers<double>(a, b);
    case kFloat:
      return ordered_numbers<float>(a, b);
    default:
      return std::memcmp(a, b, static_cast<std::size_t>(part.length));
  }
}

class Builder {
 public:
  Builder(const PairSpec& spec, const std::string& base) : spec_(spec), random_(spec.seed) {
    built_.spec = spec;
    built_.base = base;
  }

  BuiltPair run() {
    node(1);
    for (int key_nodes = key_nodes_needed(); key_nodes > 0; --key_nodes) {
      built_.key_nodes.push_back(++highest_);
      node(highest_);
    }
    if (spec_.audit_node) built_.audit_node = take_node();
    for (const KeySpec& key : spec_.keys) {
      BuiltIndex index;
      if (!key.parts.empty()) index.root = take_node();
      built_.indexes.push_back(index);
    }
    write_data();
    for (std::size_t i = 0; i < spec_.keys.size(); ++i) build_index(i);
    link_storage_pages();
    list_free_records();
    list_free_nodes();
    write_key_nodes();
    write_dictionary();
    write_index_file();
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

  Byte* node(std::int32_t number) {
    const std::size_t end = static_cast<std::size_t>(number) * size();
    if (image_.size() < end) image_.resize(end);
    return image_.data() + end - size();
  }
  [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(spec_.node_size); }
  [[nodiscard]] int stored_size() const { return spec_.node_size - 1; }

  std::int32_t take_node() {
    constexpr int kWindow = 16;
    if (pool_.empty()) {
      for (int i = 0; i < (spec_.scatter ? kWindow : 1); ++i) pool_.push_back(++highest_);
      node(highest_);
      for (std::size_t i = pool_.size(); i > 1; --i) {
        std::swap(pool_[i - 1], pool_[random_(static_cast<std::uint32_t>(i))]);
      }
    }
    const std::int32_t number = pool_.back();
    pool_.pop_back();
    return number;
  }

  void set_frame(std::int32_t number, int used, int kind, int level) {
    Byte* at = node(number);
    put2(at, used);
    at[stored_size() - 2] = static_cast<Byte>(kind);
    at[stored_size() - 1] = static_cast<Byte>(level);
  }

  // ---- Records.

  void default_record(int number, Image& record) {
    for (Byte& byte : record) byte = static_cast<Byte>('a' + random_(26));
    for (std::size_t i = 1; i < spec_.keys.size(); ++i) {
      for (const PartSpec& part : spec_.keys[i].parts) {
        put_value(record.data() + part.start, part, random_);
      }
    }
    if (!spec_.keys.empty() && !spec_.keys[0].parts.empty()) {
      const PartSpec& part = spec_.keys[0].parts[0];
      put_unique(record.data() + part.start, part, number);
    }
  }

  void write_data() {
    std::ofstream file(built_.base + ".dat", std::ios::binary | std::ios::trunc);
    const bool varying = spec_.max_record_length > 0;
    const auto length = static_cast<std::size_t>(spec_.record_length);
    keys_.resize(spec_.keys.size());
    Image slot(length + (varying ? 7 : 1));
    Image record(length);
    for (int number = 1; number <= spec_.records + spec_.records_behind; ++number) {
      std::fill(slot.begin(), slot.end(), Byte{0});
      if (number <= spec_.records && !spec_.deleted.contains(number)) {
        if (spec_.make_record) {
          spec_.make_record(number, record);
        } else {
          default_record(number, record);
        }
        std::copy(record.begin(), record.end(), slot.begin());
        slot[length] = 0x0A;
        if (varying) put_variable_part(slot.data() + length + 1);
        take_keys(number, record);
      }
      file.write(reinterpret_cast<const char*>(slot.data()),
                 static_cast<std::streamsize>(slot.size()));
    }
    if (!file.flush()) throw std::runtime_error("cannot write " + built_.base + ".dat");
  }

  void take_keys(int number, const Image& record) {
    records_.push_back(number);
    for (std::size_t i = 0; i < spec_.keys.size(); ++i) {
      for (const PartSpec& part : spec_.keys[i].parts) {
        const auto from = record.begin() + part.start;
        keys_[i].insert(keys_[i].end(), from, from + part.length);
      }
    }
  }

  // ---- Trees.

  void build_index(std::size_t number) {
    const KeySpec& key = spec_.keys[number];
    if (key.parts.empty()) return;
    const auto width = static_cast<std::size_t>(key_length(key));
    const Image& keys = keys_[number];
    std::vector<std::uint32_t> order(records_.size());
    std::iota(order.begin(), order.end(), 0u);
    const auto compare = [&](std::uint32_t a, std::uint32_t b) {
      const Byte* left = keys.data() + a * width;
      const Byte* right = keys.data() + b * width;
      for (const PartSpec& part : key.parts) {
        int result = compare_part(part, left, right);
        if ((part.type & kDescending) != 0) result = -result;
        if (result != 0) return result;
        left += part.length;
        right += part.length;
      }
      return 0;
    };
    std::stable_sort(order.begin(), order.end(),
                     [&](std::uint32_t a, std::uint32_t b) { return compare(a, b) < 0; });
    levels_.clear();
    std::int32_t dup = 0;
    for (std::size_t i = 0; i < order.size(); ++i) {
      const bool again = i > 0 && compare(order[i - 1], order[i]) == 0;
      dup = again && (key.flags & kDups) != 0 ? dup + 1 : 0;
      const Byte* from = keys.data() + order[i] * width;
      add_item(number, 0, {{from, from + width}, records_[order[i]], dup});
    }
    finish_tree(number);
  }

  [[nodiscard]] int dup_width(const KeySpec& key) const {
    return (key.flags & kDups) != 0 ? spec_.dup_width : 0;
  }

  static int extent(const std::vector<Byte>& key) {
    int length = static_cast<int>(key.size());
    while (length > 0 && key[static_cast<std::size_t>(length) - 1] == ' ') --length;
    return length;
  }

  // The stored bytes of an item behind the node's last one, without its record pointer's mark.
  Image stored_form(const KeySpec& key, const OpenNode& open, const Entry& item, bool& repeats,
                    int& tail) const {
    const int width = static_cast<int>(item.key.size());
    const bool first = open.area.empty();
    repeats = !first && (key.flags & kDCompress) != 0 && item.key == open.last.key;
    tail = 0;
    Image bytes;
    if (!repeats) {
      int most_shared = width - 1;
      if ((key.flags & kTCompress) != 0) {
        tail = width - extent(item.key);
        most_shared = width - tail;
      }
      int lead = 0;
      if ((key.flags & kLCompress) != 0) {
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
      if ((key.flags & kTCompress) != 0) bytes.push_back(static_cast<Byte>(tail));
      bytes.insert(bytes.end(), item.key.begin() + lead, item.key.end() - tail);
    }
    const int dups = dup_width(key);
    bytes.resize(bytes.size() + static_cast<std::size_t>(dups) + 4);
    Byte* end = bytes.data() + bytes.size();
    if (dups == 4) put4(end - 8, item.dup);
    if (dups == 2) put2(end - 6, item.dup);
    put4(end - 4, item.pointer);
    return bytes;
  }

  void add_item(std::size_t number, std::size_t level, const Entry& item) {
    if (level == levels_.size()) levels_.emplace_back();
    const KeySpec& key = spec_.keys[number];
    const auto limit =
        static_cast<std::size_t>(static_cast<double>(stored_size() - 4) * spec_.fill);
    bool repeats = false;
    int tail = 0;
    Image bytes = stored_form(key, levels_[level], item, repeats, tail);
    if (!levels_[level].area.empty() && levels_[level].area.size() + bytes.size() > limit) {
      close_node(number, level);
      bytes = stored_form(key, levels_[level], item, repeats, tail);
    }
    if (bytes.size() > static_cast<std::size_t>(stored_size() - 4)) {
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

  void put_node(std::size_t number, std::size_t level, std::int32_t into) {
    const OpenNode& open = levels_[level];
    std::copy(open.area.begin(), open.area.end(), node(into) + 2);
    set_frame(into, static_cast<int>(open.area.size()) + 2, 0, static_cast<int>(level));
    BuiltIndex& index = built_.indexes[number];
    (level == 0 ? index.leaves : index.uppers).push_back(into);
  }

  void close_node(std::size_t number, std::size_t level) {
    const std::int32_t into = take_node();
    put_node(number, level, into);
    Entry separator = levels_[level].last;
    separator.pointer = into;
    levels_[level] = OpenNode{};
    add_item(number, level + 1, separator);
  }

  void finish_tree(std::size_t number) {
    if (levels_.empty()) levels_.emplace_back();
    std::size_t top = 0;
    for (; top + 1 < levels_.size(); ++top) close_node(number, top);
    put_node(number, top, built_.indexes[number].root);
  }

  // ---- Storage pages.

  [[nodiscard]] int capacity() const { return stored_size() - 25; }
  [[nodiscard]] int chunk() const { return stored_size() - 29; }

  std::int32_t new_page() {
    const std::int32_t page = take_node();
    Byte* at = node(page);
    put2(at + 2, 0x7E26);
    put2(at + 12, capacity());
    put2(at + 14, 23);
    at[22] = 255;
    set_frame(page, 0, 0x7C, 0);
    return page;
  }

  // Puts a piece into a page and returns its record pointer.
  std::int32_t put_piece(std::int32_t page, const Image& piece) {
    Byte* at = node(page);
    const int slot = at[21]++;
    const int end = get2(at + 14);
    std::copy(piece.begin(), piece.end(), at + end);
    Byte* entry = at + stored_size() - 6 - 4 * slot;
    put2(entry, static_cast<std::int64_t>(piece.size()));
    put2(entry + 2, end);
    put2(at + 14, end + static_cast<int>(piece.size()));
    put2(at + 12, get2(at + 12) - static_cast<int>(piece.size()) - 4);
    return slot << 24 | page;
  }

  void put_variable_part(Byte* trailer) {
    const int most = spec_.max_record_length - spec_.record_length;
    // Most parts are short; some take several pages.
    const int length = static_cast<int>(
        random_(random_(4) == 0 ? static_cast<std::uint32_t>(most) + 1
                                : static_cast<std::uint32_t>(std::min(most, 60)) + 1));
    put2(trailer, length);
    if (length == 0) return;
    Image part(static_cast<std::size_t>(length));
    for (Byte& byte : part) byte = static_cast<Byte>('a' + random_(26));
    const int big = (length - 1) / chunk();
    const auto small_at = part.begin() + static_cast<std::ptrdiff_t>(big) * chunk();
    const Image small(small_at, part.end());
    std::int32_t pointer = put_piece(page_for(static_cast<int>(small.size())), small);
    for (int i = big; i-- > 0;) {
      const auto from = part.begin() + static_cast<std::ptrdiff_t>(i) * chunk();
      const std::int32_t page = new_page();
      built_.big_pages.push_back(page);
      const std::int32_t next = pointer;
      pointer = put_piece(page, Image(from, from + chunk()));
      put4(node(page) + 16, next);
      node(page)[20] = 1;
    }
    put4(trailer + 2, pointer);
  }

  std::int32_t page_for(int bytes) {
    if (built_.small_pages.empty() || get2(node(built_.small_pages.back()) + 12) < bytes + 4) {
      built_.small_pages.push_back(new_page());
    }
    return built_.small_pages.back();
  }

  void link_storage_pages() {
    const int width = capacity() / 5 + 1;
    std::int32_t heads[5] = {};
    std::vector<std::int32_t> pages = built_.small_pages;
    pages.insert(pages.end(), built_.big_pages.begin(), built_.big_pages.end());
    for (const std::int32_t page : pages) {
      Byte* at = node(page);
      const int room = get2(at + 12);
      const int page_class = room < 1 ? 0 : (room - 1) / width;
      at[22] = static_cast<Byte>(page_class);
      if (page_class == 0) continue;
      put4(at + 4, heads[page_class]);
      if (heads[page_class] != 0) put4(node(heads[page_class]) + 8, page);
      heads[page_class] = page;
    }
    for (int i = 0; i < 5; ++i) put4(node(1) + dict::kStorageHeads + 4 * i, heads[i]);
  }

  // ---- Free lists.

  [[nodiscard]] std::size_t entries_per_node() const {
    return static_cast<std::size_t>((spec_.node_size - 4 - 6) / 4);
  }

  // Lays entries out over list nodes, of which the last made is the head.
  std::int32_t put_list(const std::vector<std::int32_t>& entries,
                        const std::vector<std::int32_t>& nodes, int kind,
                        std::vector<std::int32_t>& list) {
    std::int32_t head = 0;
    std::size_t done = 0;
    for (const std::int32_t into : nodes) {
      const std::size_t count = std::min(entries_per_node(), entries.size() - done);
      put4(node(into) + 2, head);
      for (std::size_t i = 0; i < count; ++i) put4(node(into) + 6 + 4 * i, entries[done + i]);
      set_frame(into, static_cast<int>(6 + 4 * count), kind, 0x7F);
      done += count;
      head = into;
      list.insert(list.begin(), into);
    }
    return head;
  }

  void list_free_records() {
    const std::vector<std::int32_t> entries(spec_.deleted.rbegin(), spec_.deleted.rend());
    std::vector<std::int32_t> nodes;
    for (std::size_t done = 0; done < entries.size(); done += entries_per_node()) {
      nodes.push_back(take_node());
    }
    put4(node(1) + dict::kFreeData, put_list(entries, nodes, 0xFF, built_.free_data_list));
  }

  void list_free_nodes() {
    std::vector<std::int32_t> free = pool_;
    for (int i = 0; i < spec_.free_nodes; ++i) {
      free.push_back(++highest_);
      node(highest_);
    }
    if (!free.empty()) {
      node(++highest_);  // the highest number is in use: lists never name it
      highest_in_use_is_page();
    }
    std::vector<std::int32_t> nodes;
    while (!free.empty() && free.size() > nodes.size() * entries_per_node()) {
      nodes.push_back(free.back());
      free.pop_back();
    }
    put4(node(1) + dict::kFreeNode, put_list(free, nodes, 0xFE, built_.free_node_list));
    pool_.clear();
  }

  // Gives the last node to the key-description chain, as an empty one.
  void highest_in_use_is_page() { built_.key_nodes.push_back(highest_); }

  // ---- Descriptions and dictionary.

  [[nodiscard]] int key_nodes_needed() const {
    int room = 0;
    int nodes = 1;
    for (const KeySpec& key : spec_.keys) {
      const int entry = 7 + 5 * static_cast<int>(key.parts.size());
      if (6 + room + entry >= spec_.node_size - 3) {
        ++nodes;
        room = 0;
      }
      room += entry;
    }
    return nodes;
  }

  void write_key_nodes() {
    std::size_t current = 0;
    int used = 6;
    const auto close = [&] {
      set_frame(built_.key_nodes[current], used, 0xFF, 0x7E);
      const bool more = current + 1 < built_.key_nodes.size();
      put4(node(built_.key_nodes[current]) + 2, more ? built_.key_nodes[current + 1] : 0);
      ++current;
      used = 6;
    };
    for (std::size_t i = 0; i < spec_.keys.size(); ++i) {
      const KeySpec& key = spec_.keys[i];
      const int entry = 7 + 5 * static_cast<int>(key.parts.size());
      if (used + entry >= spec_.node_size - 3) close();
      Byte* at = node(built_.key_nodes[current]) + used;
      put2(at, entry);
      put4(at + 2, built_.indexes[i].root);
      at[6] = static_cast<Byte>(key.flags >> 1);
      for (std::size_t p = 0; p < key.parts.size(); ++p) {
        const int dups = p == 0 && (key.flags & kDups) != 0 ? 0x8000 : 0;
        put2(at + 7 + 5 * p, key.parts[p].length | dups);
        put2(at + 9 + 5 * p, key.parts[p].start);
        at[11 + 5 * p] = static_cast<Byte>(key.parts[p].type);
      }
      used += entry;
    }
    while (current < built_.key_nodes.size()) close();
  }

  void write_dictionary() {
    Byte* at = node(1);
    put2(at + dict::kMagic, 0xFE53);
    at[2] = at[3] = 2;
    at[4] = at[5] = 4;
    put2(at + dict::kNodeSize, stored_size());
    put2(at + dict::kKeys, static_cast<std::int64_t>(spec_.keys.size()));
    at[10] = 7;
    at[dict::kDupSize] = static_cast<Byte>(spec_.dup_width);
    put2(at + dict::kRecordSize, spec_.record_length);
    put4(at + dict::kKeyNode, built_.key_nodes.front());
    put4(at + dict::kNextData, spec_.records);
    put4(at + dict::kNextNode, highest_);
    put4(at + dict::kStamp, 7);
    put4(at + dict::kUniqueId, 1);
    put4(at + dict::kAuditNode, built_.audit_node);
    put2(at + dict::kLockMethod, spec_.lock_method);
    put2(at + dict::kMaxRecord, spec_.max_record_length);
    if (!spec_.collation.empty()) {
      at[dict::kCollate] = 1;
      std::copy_n(spec_.collation.begin(), std::min<std::size_t>(36, spec_.collation.size()),
                  at + dict::kCollation);
    }
    built_.last_node = highest_;
  }

  void write_index_file() {
    image_.resize(
        (static_cast<std::size_t>(highest_) + static_cast<std::size_t>(spec_.nodes_behind)) *
        size());
    std::ofstream file(built_.base + ".idx", std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(image_.data()),
               static_cast<std::streamsize>(image_.size()));
    if (!file.flush()) throw std::runtime_error("cannot write " + built_.base + ".idx");
  }

  PairSpec spec_;
  BuiltPair built_;
  Random random_;
  Image image_;
  std::int32_t highest_ = 1;
  std::vector<std::int32_t> pool_;  // numbers taken but not yet handed out
  std::vector<std::int32_t> records_;
  std::vector<Image> keys_;  // of each index, the key bytes of all records in a row
  std::vector<OpenNode> levels_;
};

}  // namespace

BuiltPair build_pair(const PairSpec& spec, const std::string& base) {
  return Builder(spec, base).run();
}

PairSpec mixed_spec(int node_size, int records, std::uint32_t seed) {
  PairSpec spec;
  spec.node_size = node_size;
  spec.records = records;
  spec.seed = seed;
  spec.scatter = seed % 2 == 1;
  spec.fill = seed % 3 == 0 ? 0.6 : 1.0;
  spec.dup_width = seed % 5 == 0 ? 4 : 2;
  spec.keys = {{.flags = 0, .parts = {{0, 12, kChar}}},
               {.flags = kDups | kDCompress, .parts = {{12, 4, kLong}}},
               {.flags = kDups | kDCompress | kLCompress | kTCompress, .parts = {{16, 16, kChar}}},
               {.flags = kDups | kLCompress | kTCompress,
                .parts = {{32, 2, kInt | kDescending}, {16, 8, kChar}}},
               {.flags = kDups, .parts = {{34, 8, kDouble}, {42, 4, kFloat | kDescending}}}};
  for (int number = 5; number < records; number += 7) spec.deleted.insert(number);
  return spec;
}

PairSpec varying_spec(int node_size, int records, int longest, std::uint32_t seed) {
  PairSpec spec;
  spec.node_size = node_size;
  spec.records = records;
  spec.seed = seed;
  spec.record_length = 40;
  spec.max_record_length = longest;
  spec.scatter = seed % 2 == 1;
  spec.keys = {{.flags = 0, .parts = {{0, 12, kChar}}},
               {.flags = kDups | kDCompress | kTCompress, .parts = {{16, 16, kChar}}}};
  for (int number = 4; number < records; number += 9) spec.deleted.insert(number);
  return spec;
}

PairSpec bench_spec(int records) {
  PairSpec spec;
  spec.records = records;
  spec.record_length = 128;
  spec.dup_width = 4;
  spec.keys = {{.flags = 0, .parts = {{0, 8, kChar}}}, {.flags = kDups, .parts = {{8, 20, kChar}}}};
  const auto groups = static_cast<std::uint64_t>(std::max(records / 10, 1));
  spec.make_record = [groups](int number, Image& record) {
    std::fill(record.begin(), record.end(), Byte{' '});
    put_unique(record.data(), {0, 8}, number);
    const std::uint64_t group = static_cast<std::uint64_t>(number) * 2654435761u % groups;
    std::memcpy(record.data() + 8, "NAME", 4);
    put_unique(record.data() + 12, {0, 8}, static_cast<int>(group));
  };
  return spec;
}

}  // namespace testing_support
