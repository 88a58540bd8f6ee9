#include "tests/support/pair_builder.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "tests/support/storage_pages.h"
#include "tests/support/tree_writer.h"

namespace testing_support {
namespace {

class Builder {
 public:
  Builder(const PairSpec& spec, const std::string& base)
      : spec_(spec),
        random_(spec.seed),
        nodes_(spec.node_size, spec.scatter, random_),
        pages_(spec_, nodes_, random_) {
    built_.spec = spec;
    built_.base = base;
  }

  BuiltPair run() {
    for (int key_nodes = key_nodes_needed(); key_nodes > 0; --key_nodes) {
      built_.key_nodes.push_back(nodes_.append());
    }
    if (spec_.audit_node) built_.audit_node = nodes_.take();
    for (const KeySpec& key : spec_.keys) {
      BuiltIndex index;
      if (!key.parts.empty()) index.root = nodes_.take();
      built_.indexes.push_back(index);
    }
    write_data();
    write_trees();
    pages_.link();
    built_.big_pages = pages_.big();
    built_.small_pages = pages_.small();
    list_free_records();
    list_free_nodes();
    write_key_nodes();
    write_dictionary();
    write_index_file();
    return built_;
  }

 private:
  // ---- Records and trees.

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
          make_default_record(spec_, number, random_, record);
        }
        std::copy(record.begin(), record.end(), slot.begin());
        slot[length] = 0x0A;
        if (varying) pages_.put_variable_part(slot.data() + length + 1);
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

  void write_trees() {
    for (std::size_t i = 0; i < spec_.keys.size(); ++i) {
      if (spec_.keys[i].parts.empty()) continue;
      built_.indexes[i] = TreeWriter(spec_, spec_.keys[i], nodes_)
                              .run({records_, keys_[i]}, built_.indexes[i].root);
    }
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
      put4(nodes_.at(into) + 2, head);
      for (std::size_t i = 0; i < count; ++i) put4(nodes_.at(into) + 6 + 4 * i, entries[done + i]);
      nodes_.set_frame(into, static_cast<int>(6 + 4 * count), kind, 0x7F);
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
      nodes.push_back(nodes_.take());
    }
    put4(nodes_.at(1) + dict::kFreeData, put_list(entries, nodes, 0xFF, built_.free_data_list));
  }

  void list_free_nodes() {
    std::vector<std::int32_t> free = nodes_.leave_pool();
    for (int i = 0; i < spec_.free_nodes; ++i) free.push_back(nodes_.append());
    // The highest number is in use, for lists never name it: by the chain of key descriptions, as
    // an empty one.
    if (!free.empty()) built_.key_nodes.push_back(nodes_.append());
    std::vector<std::int32_t> nodes;
    while (!free.empty() && free.size() > nodes.size() * entries_per_node()) {
      nodes.push_back(free.back());
      free.pop_back();
    }
    put4(nodes_.at(1) + dict::kFreeNode, put_list(free, nodes, 0xFE, built_.free_node_list));
  }

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
      nodes_.set_frame(built_.key_nodes[current], used, 0xFF, 0x7E);
      const bool more = current + 1 < built_.key_nodes.size();
      put4(nodes_.at(built_.key_nodes[current]) + 2, more ? built_.key_nodes[current + 1] : 0);
      ++current;
      used = 6;
    };
    for (std::size_t i = 0; i < spec_.keys.size(); ++i) {
      const KeySpec& key = spec_.keys[i];
      const int entry = 7 + 5 * static_cast<int>(key.parts.size());
      if (used + entry >= spec_.node_size - 3) close();
      Byte* at = nodes_.at(built_.key_nodes[current]) + used;
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
    Byte* at = nodes_.at(1);
    put2(at + dict::kMagic, 0xFE53);
    at[2] = at[3] = 2;
    at[4] = at[5] = 4;
    put2(at + dict::kNodeSize, nodes_.stored_size());
    put2(at + dict::kKeys, static_cast<std::int64_t>(spec_.keys.size()));
    at[10] = 7;
    at[dict::kDupSize] = static_cast<Byte>(spec_.dup_width);
    put2(at + dict::kRecordSize, spec_.record_length);
    put4(at + dict::kKeyNode, built_.key_nodes.front());
    put4(at + dict::kNextData, spec_.records);
    put4(at + dict::kNextNode, nodes_.highest());
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
    built_.last_node = nodes_.highest();
  }

  void write_index_file() {
    const Image& image = nodes_.file(spec_.nodes_behind);
    std::ofstream file(built_.base + ".idx", std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(image.data()),
               static_cast<std::streamsize>(image.size()));
    if (!file.flush()) throw std::runtime_error("cannot write " + built_.base + ".idx");
  }

  PairSpec spec_;
  BuiltPair built_;
  Random random_;
  IndexNodes nodes_;
  StoragePages pages_;
  std::vector<std::int32_t> records_;
  std::vector<Image> keys_;  // of each index, the key bytes of all records in a row
};

}  // namespace

BuiltPair build_pair(const PairSpec& spec, const std::string& base) {
  return Builder(spec, base).run();
}

}  // namespace testing_support
