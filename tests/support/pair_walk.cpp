#include "tests/support/pair_walk.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <stdexcept>

#include "tests/support/key_order.h"

namespace testing_support {

Image read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const Image& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

namespace {

constexpr std::size_t kEnough = 20;  // problems told of one pair

struct Part {
  int length;
  int start;
  int type;
};

struct Index {
  int flags;
  std::int32_t root;
  std::vector<Part> parts;
  int width = 0;
};

struct Item {
  Image key;
  std::int64_t dup = 0;
  std::int32_t pointer = 0;
};

class Walker {
 public:
  explicit Walker(const std::string& base)
      : index_(read_file(base + ".idx")), data_(read_file(base + ".dat")) {}

  Walk run() {
    if (index_.size() < dict::kSize || get2(&index_[0]) != 0xFE53) {
      problem("no dictionary");
      return walk_;
    }
    size_ = get2(&index_[dict::kNodeSize]) + 1;
    record_length_ = get2(&index_[dict::kRecordSize]);
    max_length_ = get2(&index_[dict::kMaxRecord]);
    last_node_ = get4(&index_[dict::kNextNode]);
    last_record_ = get4(&index_[dict::kNextData]);
    if (last_node_ < 1 || static_cast<std::size_t>(last_node_) * size() > index_.size()) {
      read_records();
      problem("nodes in use past the end of the file");
      return walk_;
    }
    use_node(1, "dictionary");
    if (const int audit = get4(&index_[dict::kAuditNode]) & 0x7FFFFFFF; audit != 0) {
      use_node(audit, "audit node");
    }
    read_records();
    read_descriptions();
    if (get2(&index_[dict::kKeys]) != static_cast<int>(indexes_.size())) problem("index count");
    for (std::size_t i = 0; i < indexes_.size(); ++i) check_index(i);
    check_storage_lists();
    check_free_list(dict::kFreeData, 0xFF, last_record_, used_records_, "record");
    check_free_list(dict::kFreeNode, 0xFE, last_node_, used_nodes_, "node");
    demand_all(last_node_, used_nodes_, "node ");
    demand_all(last_record_, used_records_, "record ");
    return walk_;
  }

 private:
  [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(size_); }
  void problem(const std::string& text) {
    if (walk_.problems.size() < kEnough) walk_.problems.push_back(text);
  }
  [[nodiscard]] bool exists(std::int64_t number) const {
    return number >= 1 && static_cast<std::size_t>(number) * size() <= index_.size();
  }
  [[nodiscard]] const Byte* node(std::int32_t number) const {
    return &index_[static_cast<std::size_t>(number - 1) * size()];
  }
  // Every number up to the last is accounted for; a few that are not will do.
  void demand_all(std::int32_t last, const std::set<std::int32_t>& used, const std::string& what) {
    for (std::int64_t n = 1; n <= last && walk_.problems.size() < kEnough; ++n) {
      if (!used.contains(static_cast<std::int32_t>(n))) {
        problem(what + std::to_string(n) + " is lost");
      }
    }
  }
  bool use_node(std::int32_t number, const std::string& what) {
    if (number < 1 || number > last_node_) {
      problem(what + ": node " + std::to_string(number) + " is out of range");
      return false;
    }
    if (!used_nodes_.insert(number).second) {
      problem(what + ": node " + std::to_string(number) + " is used twice");
      return false;
    }
    return true;
  }

  // ---- Records.

  void read_records() {
    const std::size_t slot = static_cast<std::size_t>(record_length_) + (max_length_ != 0 ? 7 : 1);
    // What a file's end cuts off behind a state byte reads as zero bytes.
    const std::size_t rest = data_.size() % slot;
    if (rest > static_cast<std::size_t>(record_length_)) data_.resize(data_.size() + slot - rest);
    for (std::size_t at = 0; at + slot <= data_.size(); at += slot) {
      const auto number = static_cast<std::int32_t>(at / slot) + 1;
      const Byte* from = &data_[at];
      if (from[record_length_] != 0x0A) continue;
      Image record(from, from + record_length_);
      if (max_length_ != 0) {
        const std::optional<Image> part = variable_part(from + record_length_ + 1);
        if (!part) continue;
        record.insert(record.end(), part->begin(), part->end());
      }
      walk_.records.emplace(number, std::move(record));
      used_records_.insert(number);
      if (number > last_record_) problem("record past the highest in use");
    }
    for (const auto& [page, bytes] : pages_) {
      use_node(page, "storage page");
      const Byte* at = node(page);
      int data = 0;
      for (int i = 0; i < at[21]; ++i) data += get2(at + size_ - 7 - 4 * i);
      if (get2(at + 12) != size_ - 26 - data - 4 * at[21]) problem("free bytes of a page");
    }
  }

  std::optional<Image> variable_part(const Byte* trailer) {
    const int length = get2(trailer);
    std::int32_t pointer = get4(trailer + 2);
    if (length > max_length_ - record_length_ || (length > 0) != (pointer != 0)) return {};
    Image part;
    std::vector<std::int32_t> chain;
    while (pointer != 0) {
      const std::int32_t page = pointer & 0xFFFFFF;
      const int slot = pointer >> 24 & 0xFF;
      if (!exists(page) || get2(node(page) + 2) != 0x7E26 || slot >= node(page)[21]) return {};
      if (chain.size() > 1000) return {};
      const Byte* at = node(page);
      const Byte* entry = at + size_ - 7 - 4 * slot;
      if (entry < at + 23) return {};
      const int piece = get2(entry);
      const int offset = get2(entry + 2);
      if (piece > 0 && (offset < 23 || offset + piece > size_)) return {};
      part.insert(part.end(), at + offset, at + offset + piece);
      chain.push_back(page);
      const bool big = at[21] == 1 && piece == size_ - 30 && (at[20] & 1) != 0;
      pointer = big ? get4(at + 16) : 0;
      if (big && pointer == 0) return {};
    }
    if (static_cast<int>(part.size()) != length) {
      if (static_cast<int>(part.size()) < length) return {};
      part.resize(static_cast<std::size_t>(length));
    }
    for (const std::int32_t page : chain) pages_[page] += 1;
    return part;
  }

  // ---- Descriptions and trees.

  void read_descriptions() {
    for (std::int32_t at = get4(&index_[dict::kKeyNode]); at != 0;) {
      if (!use_node(at, "key descriptions")) return;
      const Byte* from = node(at);
      const int used = get2(from) & 0x7FFF;
      for (int pos = 6; pos + 7 <= used;) {
        const int entry = get2(from + pos);
        if (entry < 7 || pos + entry > used) {
          problem("key description");
          return;
        }
        Index index{from[pos + 6] * 2, get4(from + pos + 2), {}};
        for (int p = pos + 7; p < pos + entry; p += 5) {
          if (p == pos + 7 && (from[p] & 0x80) != 0) index.flags |= kDups;
          index.parts.push_back({get2(from + p) & 0x7FFF, get2(from + p + 2), from[p + 4]});
          index.width += index.parts.back().length;
          if (index.parts.back().start + index.parts.back().length > record_length_) {
            problem("key part outside the record");
            return;
          }
        }
        indexes_.push_back(index);
        pos += entry;
      }
      at = get4(from + 2);
    }
  }

  [[nodiscard]] Image key_of(const Index& index, const Image& record) const {
    Image key;
    for (const Part& part : index.parts) {
      key.insert(key.end(), record.begin() + part.start, record.begin() + part.start + part.length);
    }
    return key;
  }

  static int compare(const Index& index, const Image& a, const Image& b) {
    std::size_t at = 0;
    for (const Part& part : index.parts) {
      const int order = compare_part(part.type, part.length, &a[at], &b[at]);
      if (order != 0) return order;
      at += static_cast<std::size_t>(part.length);
    }
    return 0;
  }

  static bool follows(const Index& index, const Item& a, const Item& b) {
    const int order = compare(index, a.key, b.key);
    return order < 0 || (order == 0 && (index.flags & kDups) != 0 && a.dup < b.dup);
  }

  // Length of a key without its trailing blanks.
  static int extent(const Image& key) {
    const auto last = std::find_if(key.rbegin(), key.rend(), [](Byte byte) { return byte != ' '; });
    return static_cast<int>(key.rend() - last);
  }

  std::vector<Item> items_of(const Index& index, std::int32_t number) {
    std::vector<Item> items;
    const Byte* from = node(number);
    const int end = get2(from) & 0x7FFF;
    if (end < 2 || end - 2 > size_ - 5) {
      problem("used count of node " + std::to_string(number));
      return items;
    }
    const int dups = (index.flags & kDups) == 0 ? 0 : index_[dict::kDupSize] == 4 ? 4 : 2;
    bool repeated = false;
    bool tidy = true;
    int lent = 0;  // leading bytes that the next item may take from this one
    Image key(static_cast<std::size_t>(index.width));
    for (int pos = 2; pos < end;) {
      if (!repeated) {
        const int lead = (index.flags & kLCompress) != 0 ? from[pos++] : 0;
        const int tail = (index.flags & kTCompress) != 0 ? from[pos++] : 0;
        const int kept = index.width - lead - tail;
        if (kept < 0 || pos + kept + dups + 4 > end) break;
        const Image before = key;
        std::copy_n(from + pos, kept, key.begin() + lead);
        std::fill_n(key.begin() + lead + kept, tail, Byte{' '});
        pos += kept;
        // An item without trailing compression stores its last byte.
        const bool cuts = (index.flags & kTCompress) != 0;
        const int stored = cuts ? extent(key) : index.width;
        const int most = std::min(lent, cuts ? stored : stored - 1);
        const auto differs = std::mismatch(key.begin(), key.begin() + most, before.begin()).first;
        const int shared = static_cast<int>(differs - key.begin());
        // Of an item that repeated its key the next one takes no trailing blanks. That stays so
        // when the item whose key it repeated goes.
        const bool leads =
            (index.flags & kLCompress) == 0 || lead == shared ||
            ((index.flags & kDCompress) != 0 && lead == std::min(shared, extent(before)));
        tidy = tidy && leads && lead + kept == stored;
        lent = stored;
      } else {
        lent = extent(key);
      }
      if (pos + dups + 4 > end) break;
      const std::int64_t dup = dups == 4 ? get4(from + pos) : dups == 2 ? get2(from + pos) : 0;
      pos += dups;
      repeated = (from[pos] & 0x80) != 0;
      items.push_back({key, dup, get4(from + pos) & 0x7FFFFFFF});
      pos += 4;
    }
    const bool zeros =
        std::all_of(from + end, from + size_ - 4, [](Byte byte) { return byte == 0; });
    if (!tidy || repeated || !zeros || from[size_ - 1] != 0) {
      walk_.untidy.push_back("node " + std::to_string(number));
    }
    return items;
  }

  // Collects the leaf items below a node in order; every one must not be above `bound`.
  void collect(const Index& index, std::int32_t number, int level, const Item* bound,
               std::vector<Item>& leaves, WalkedIndex& walked) {
    if (!use_node(number, "tree")) return;
    const int stands_at = node(number)[size_ - 2] & 0x7F;
    if (level >= 0 && stands_at != level) problem("level of node " + std::to_string(number));
    const std::vector<Item> items = items_of(index, number);
    walked.levels = std::max(walked.levels, stands_at + 1);
    if (stands_at == 0) walked.leaves.push_back(static_cast<int>(items.size()));
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (stands_at == 0) {
        leaves.push_back(items[i]);
        if (bound != nullptr && follows(index, *bound, items[i])) problem("item above separator");
      } else {
        const bool last = i + 1 == items.size();
        collect(index, items[i].pointer, stands_at - 1, last ? bound : &items[i], leaves, walked);
        if (!last && (leaves.empty() || follows(index, items[i], leaves.back()))) {
          problem("separator below its subtree");
        }
      }
    }
  }

  void check_index(std::size_t i) {
    const Index& index = indexes_[i];
    const std::string name = "index " + std::to_string(i + 1);
    WalkedIndex& walked = walk_.indexes.emplace_back();
    if (index.parts.empty()) return;
    std::vector<Item> leaves;
    collect(index, index.root, -1, nullptr, leaves, walked);
    std::set<std::int32_t> seen;
    for (std::size_t k = 0; k < leaves.size(); ++k) {
      const Item& item = leaves[k];
      walked.records.push_back(item.pointer);
      walked.numbers.push_back(item.dup);
      const auto record = walk_.records.find(item.pointer);
      if (record == walk_.records.end()) {
        problem(name + ": an item without a record");
      } else if (key_of(index, record->second) != item.key) {
        problem(name + ": an item with another key than its record's");
      }
      if (!seen.insert(item.pointer).second) problem(name + ": a record twice");
      if (k > 0 && !follows(index, leaves[k - 1], item)) problem(name + ": order");
    }
    if (seen.size() < walk_.records.size()) problem(name + ": records missing");
  }

  // ---- Lists.

  void check_storage_lists() {
    if (max_length_ == 0) return;
    const int width = (size_ - 26) / 5 + 1;
    std::map<std::int32_t, int> listed;
    for (int c = 0; c < 5; ++c) {
      std::int32_t previous = 0;
      for (std::int32_t at = get4(&index_[static_cast<std::size_t>(dict::kStorageHeads + 4 * c)]);
           at != 0;) {
        if (!pages_.contains(at) || !listed.emplace(at, c).second || c == 0) {
          problem("storage list");
          return;
        }
        if (get4(node(at) + 8) != previous || node(at)[22] != c) problem("storage page link");
        previous = at;
        at = get4(node(at) + 4);
      }
    }
    for (const auto& [page, pieces] : pages_) {
      const int room = get2(node(page) + 12);
      const int page_class = room < 1 ? 0 : (room - 1) / width;
      const auto on = listed.find(page);
      if ((on == listed.end() ? 0 : on->second) != page_class) problem("storage page on no list");
    }
  }

  void check_free_list(int head, int kind, std::int32_t last, std::set<std::int32_t>& used,
                       const std::string& what) {
    const bool records = kind == 0xFF;
    for (std::int32_t at = get4(&index_[static_cast<std::size_t>(head)]); at != 0;) {
      if (!use_node(at, "free " + what + " list")) return;
      const Byte* from = node(at);
      const int entries = get2(from) - 6;
      if (from[size_ - 3] != kind || from[size_ - 2] != 0x7F || entries < 0 || entries % 4 != 0 ||
          get2(from) > size_ - 4) {
        problem("free " + what + " list node");
        return;
      }
      for (int i = 0; i < entries; i += 4) {
        const std::int32_t entry = get4(from + 6 + i);
        if (entry < (records ? 1 : 2) || entry > last || !used.insert(entry).second) {
          problem("free " + what + " entry " + std::to_string(entry));
        }
      }
      at = get4(from + 2);
    }
  }

  Image index_;
  Image data_;
  int size_ = 0;
  int record_length_ = 0;
  int max_length_ = 0;
  std::int32_t last_node_ = 0;
  std::int32_t last_record_ = 0;
  std::vector<Index> indexes_;
  std::set<std::int32_t> used_nodes_;
  std::set<std::int32_t> used_records_;
  std::map<std::int32_t, int> pages_;  // storage pages, with the pieces in use
  Walk walk_;
};

}  // namespace

Walk walk_pair(const std::string& base) { return Walker(base).run(); }

}  // namespace testing_support
