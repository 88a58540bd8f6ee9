#include "tests/support/damage.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "tests/support/pair_walk.h"

namespace testing_support {

PairEditor::PairEditor(const BuiltPair& built)
    : index(read_file(built.base + ".idx")), data(read_file(built.base + ".dat")), built_(built) {}

void PairEditor::save() const {
  write_file(built_.base + ".idx", index);
  write_file(built_.base + ".dat", data);
}

Byte* PairEditor::node(std::int32_t number) {
  return &index[static_cast<std::size_t>(number - 1) *
                static_cast<std::size_t>(built_.spec.node_size)];
}

Byte* PairEditor::slot(int number) {
  const int size = built_.spec.record_length + (built_.spec.max_record_length > 0 ? 7 : 1);
  return &data[static_cast<std::size_t>(number - 1) * static_cast<std::size_t>(size)];
}

Byte* PairEditor::description(int n) {
  for (const std::int32_t number : built_.key_nodes) {
    Byte* at = node(number);
    for (int pos = 6; pos < get2(at); pos += get2(at + pos)) {
      if (--n == 0) return at + pos;
    }
  }
  throw std::runtime_error("no such description");
}

std::vector<Byte*> PairEditor::items(int n, std::int32_t number) {
  const KeySpec& key = built_.spec.keys[static_cast<std::size_t>(n - 1)];
  int width = 4 + ((key.flags & kDups) != 0 ? built_.spec.dup_width : 0);
  for (const PartSpec& part : key.parts) width += part.length;
  std::vector<Byte*> result;
  for (int pos = 2; pos < get2(node(number)); pos += width) result.push_back(node(number) + pos);
  return result;
}

PairSpec fault_spec(bool varying) {
  PairSpec spec = varying ? varying_spec(512, 60, 1500, 3) : mixed_spec(256, 150, 4);
  spec.free_nodes = 70;
  spec.audit_node = true;
  if (!varying) {
    for (int number = 30; number < 120; ++number) spec.deleted.insert(number);
  }
  return spec;
}

namespace {

const BuiltIndex& index_of(PairEditor& e, int n) {
  return e.built().indexes[static_cast<std::size_t>(n - 1)];
}
std::int32_t root_of(PairEditor& e, int n) { return index_of(e, n).root; }
std::int32_t leaf_of(PairEditor& e, int n) { return index_of(e, n).leaves.front(); }

// Record pointer of an item of index 1, whose items are 12 key bytes and the pointer.
constexpr int kPointer = 12;
Byte* leaf_pointer(PairEditor& e, int item) {
  return e.items(1, leaf_of(e, 1))[static_cast<std::size_t>(item)] + kPointer;
}
Byte* root_pointer(PairEditor& e, int item) {
  return e.items(1, root_of(e, 1))[static_cast<std::size_t>(item)] + kPointer;
}
int level_offset(PairEditor& e) { return e.built().spec.node_size - 2; }

void add_to_used(Byte* node, int more) { put2(node, get2(node) + more); }

// A record with a variable part, and its trailer behind the state byte.
Byte* trailer_with_part(PairEditor& e, bool big) {
  const int chunk = e.built().spec.node_size - 30;
  for (int number = 1; number <= e.built().spec.records; ++number) {
    Byte* trailer = e.state(number) + 1;
    const int length = get2(trailer);
    if (e.state(number)[0] == 0x0A && (big ? length > chunk : length > 0 && length < chunk)) {
      return trailer;
    }
  }
  throw std::runtime_error("no record with a variable part");
}

Byte* page_of(PairEditor& e, const Byte* trailer) { return e.node(get4(trailer + 2) & 0xFFFFFF); }
Byte* small_page(PairEditor& e) { return page_of(e, trailer_with_part(e, false)); }
Byte* slot_entry(PairEditor& e, Byte* page, int slot) {
  return page + e.built().spec.node_size - 7 - 4 * slot;
}
// A page that stands on a list of its class.
Byte* listed_page(PairEditor& e) {
  for (const std::int32_t page : e.built().small_pages) {
    if (e.node(page)[22] >= 1 && e.node(page)[22] <= 4) return e.node(page);
  }
  throw std::runtime_error("no page on a list");
}
Byte* list_head(PairEditor& e, const Byte* page) {
  return e.dictionary() + dict::kStorageHeads + 4 * page[22];
}

void swap_dup_numbers(PairEditor& e) {
  const int width = e.built().spec.dup_width;
  for (const std::int32_t leaf : index_of(e, 5).leaves) {
    const std::vector<Byte*> items = e.items(5, leaf);
    for (std::size_t i = 1; i < items.size(); ++i) {
      if (std::equal(items[i], items[i] + 12, items[i - 1])) {
        std::swap_ranges(items[i] + 12, items[i] + 12 + width, items[i - 1] + 12);
        return;
      }
    }
  }
  throw std::runtime_error("no equal keys");
}

// ---- The catalogue. Most faults are a number put where it does not belong.

using Place = Byte* (*)(PairEditor&);
using Apply = std::function<void(PairEditor&)>;

struct Poke {
  const char* name;
  std::string finding;
  Place place;
  int offset;
  int width;  // bytes
  std::int64_t value;
};

class Catalogue {
 public:
  // The faults that follow are of these pairs, and are named and end like this.
  Catalogue& begin(const char* prefix, bool varying, After after) {
    prefix_ = prefix;
    varying_ = varying;
    after_ = after;
    return *this;
  }
  Catalogue& add(const std::string& name, const std::string& finding, Apply apply) {
    all.push_back({prefix_ + name, varying_, finding, after_, std::move(apply)});
    return *this;
  }
  Catalogue& add(std::initializer_list<Poke> pokes) {
    for (const Poke& poke : pokes) {
      add(poke.name, poke.finding, [poke](PairEditor& e) {
        Byte* const at = poke.place(e) + poke.offset;
        if (poke.width == 1) *at = static_cast<Byte>(poke.value);
        if (poke.width > 1) (poke.width == 2 ? put2 : put4)(at, poke.value);
      });
    }
    return *this;
  }

  std::vector<Fault> all;

 private:
  std::string prefix_;
  bool varying_ = false;
  After after_ = After::kSound;
};

Byte* dictionary(PairEditor& e) { return e.dictionary(); }
Byte* second_description(PairEditor& e) { return e.description(2); }
Byte* first_leaf(PairEditor& e) { return e.node(leaf_of(e, 1)); }
Byte* third_item(PairEditor& e) { return leaf_pointer(e, 2); }
Byte* second_child(PairEditor& e) { return root_pointer(e, 1); }
Byte* short_trailer(PairEditor& e) { return trailer_with_part(e, false); }
Byte* long_part(PairEditor& e) { return page_of(e, trailer_with_part(e, true)); }
Byte* first_slot(PairEditor& e) { return slot_entry(e, small_page(e), 0); }
Byte* head_of_listed(PairEditor& e) { return list_head(e, listed_page(e)); }

constexpr const char* kBadNode = " bad index node pointer(s)";
constexpr const char* kTwiceNode = " duplicate index node pointer(s)";
constexpr const char* kLostNode = " missing index node pointer(s)";
constexpr const char* kBadRecord = " bad data record pointer(s)";
constexpr const char* kTwiceRecord = " duplicate data record pointer(s)";
constexpr const char* kLostRecord = " missing data record pointer(s)";
constexpr const char* kBadDescription = "bad index node in key descriptors";
constexpr const char* kTwiceDescription = "duplicate index node in key descriptors";

void add_dictionary_faults(Catalogue& to) {
  const std::string corrupted = "Zentra ERROR 105: Corrupted isam file";
  const std::string format = "Zentra ERROR 171: isam file format change detected";
  to.begin("dictionary_", false, After::kRefused)
      .add({{"magic", corrupted, dictionary, 0, 2, 0x1234},
            {"fixed_bytes", corrupted, dictionary, 2, 2, 0x0203},
            {"node_size_small", corrupted, dictionary, 6, 2, 100},
            {"node_size_odd", corrupted, dictionary, 6, 2, 2001},
            {"node_size_later", format, dictionary, 6, 2, 2000},
            {"lock_method_old", format, dictionary, 53, 2, 3},
            {"lock_method_unknown", corrupted, dictionary, 53, 2, 900},
            {"record_size_zero", "bad data record size", dictionary, 13, 2, 0},
            {"record_size_negative", "bad data record size", dictionary, 13, 2, -5},
            {"maximum_negative", "bad data record maximum size", dictionary, 59, 2, -5},
            {"key_node_beyond", kBadDescription, dictionary, 15, 4, 99999},
            {"key_node_negative", kBadDescription, dictionary, 15, 4, -7},
            {"key_node_dictionary", kTwiceDescription, dictionary, 15, 4, 1}});
  to.begin("dictionary_", false, After::kSound)
      .add({{"lock_method_none", "", dictionary, 53, 2, 0},
            {"keys_many", "bad number of indexes", dictionary, 8, 2, 9},
            {"keys_none", "bad number of indexes", dictionary, 8, 2, 0},
            {"free_data_beyond", "bad index node", dictionary, 25, 4, 99999},
            {"free_data_none", kLostRecord, dictionary, 25, 4, 0},
            {"free_node_beyond", kBadNode, dictionary, 29, 4, 99999},
            {"free_node_none", kLostNode, dictionary, 29, 4, 0},
            {"next_data_low", kTwiceRecord, dictionary, 33, 4, 10},
            {"next_data_high", kLostRecord, dictionary, 33, 4, 170},
            {"next_data_wild", kLostRecord, dictionary, 33, 4, 2'000'000'000},
            {"next_data_negative", kTwiceRecord, dictionary, 33, 4, -2},
            {"next_node_low", kTwiceNode, dictionary, 37, 4, 10},
            {"next_node_high", kLostNode, dictionary, 37, 4, 200},
            {"next_node_wild", kLostNode, dictionary, 37, 4, 2'147'483'647},
            {"next_node_negative", kTwiceNode, dictionary, 37, 4, -2}});
  to.begin("", false, After::kSound)
      .add("free_data_head_in_use", "duplicate index node",
           [](PairEditor& e) { put4(e.dictionary() + dict::kFreeData, leaf_of(e, 1)); })
      .add("free_node_head_in_use", kTwiceNode,
           [](PairEditor& e) { put4(e.dictionary() + dict::kFreeNode, leaf_of(e, 1)); });
}

void add_file_faults(Catalogue& to) {
  to.begin("", false, After::kSound)
      .add("index_cut_in_a_node", "Zentra ERROR 105",
           [](PairEditor& e) {
             e.index.resize(static_cast<std::size_t>(leaf_of(e, 3)) * 256 - 100);
           })
      .add("index_cut_behind_descriptions", "Error in reading index file",
           [](PairEditor& e) { e.index.resize(2 * 256); })
      .add("data_cut", kBadRecord, [](PairEditor& e) { e.data.resize(e.data.size() / 2); })
      .add("data_gone", kBadRecord, [](PairEditor& e) { e.data.clear(); })
      .add("index_longer", "", [](PairEditor& e) { e.index.resize(e.index.size() + 700, 0xA5); })
      .add("data_longer", "", [](PairEditor& e) { e.data.resize(e.data.size() + 700, 0xA5); });
}

void add_description_faults(Catalogue& to) {
  const std::string format = "bad key description format";
  const auto link = [](PairEditor& e) { return e.node(e.built().key_nodes.back()) + 2; };
  to.begin("descriptions_", false, After::kRefused)
      .add("loop", kTwiceDescription,
           [=](PairEditor& e) { put4(link(e), e.built().key_nodes.back()); })
      .add("lead_to_audit_node", kTwiceDescription,
           [=](PairEditor& e) { put4(link(e), e.built().audit_node); });
  to.begin("description_", false, After::kRefused)
      .add({{"too_small", format, second_description, 0, 2, 6},
            {"size_zero", format, second_description, 0, 2, 0},
            {"size_uneven", format, second_description, 0, 2, 13},
            {"nine_parts", format, second_description, 0, 2, 7 + 45},
            {"past_the_node", format, second_description, 0, 2, 0x7000},
            {"part_outside", format, second_description, 9, 2, 49},
            {"unknown_type", format, second_description, 11, 1, 5}});
}

void add_tree_faults(Catalogue& to) {
  const std::string bad_format = "bad b-tree node (";
  const auto other_root = [&to](const char* name, std::int32_t (*root)(PairEditor&)) {
    to.add(name, "ERROR", [root](PairEditor& e) { put4(e.description(2) + 2, root(e)); });
  };
  to.begin("root_", false, After::kSound)
      .add({{"zero", kBadNode, second_description, 2, 4, 0},
            {"negative", kBadNode, second_description, 2, 4, -3},
            {"beyond", kBadNode, second_description, 2, 4, 99999},
            {"dictionary", "bad b-tree node (1) format", second_description, 2, 4, 1}});
  other_root("of_another_index", [](PairEditor& e) { return root_of(e, 1); });
  other_root("leaf_of_a_later_index", [](PairEditor& e) { return leaf_of(e, 4); });
  other_root("descriptions", [](PairEditor& e) { return e.built().key_nodes[0]; });
  other_root("audit_node", [](PairEditor& e) { return e.built().audit_node; });
  other_root("free_list_node", [](PairEditor& e) { return e.built().free_node_list[0]; });

  to.begin("", false, After::kSound)
      .add("children_crossed", "index out of order",
           [](PairEditor& e) {
             std::swap_ranges(root_pointer(e, 0), root_pointer(e, 0) + 4, root_pointer(e, 1));
           })
      .add("child_twice", kTwiceNode,
           [](PairEditor& e) { std::copy_n(root_pointer(e, 0), 4, root_pointer(e, 1)); })
      .add("child_is_the_root", kTwiceNode,
           [](PairEditor& e) { put4(root_pointer(e, 1), root_of(e, 1)); })
      .add("child_of_another_index", "ERROR",
           [](PairEditor& e) { put4(root_pointer(e, 1), leaf_of(e, 5)); })
      .add("separator_low", "index out of order",
           [](PairEditor& e) { std::fill_n(e.items(1, root_of(e, 1))[1], kPointer, Byte{0}); })
      .add("leaf_level", "ERROR", [](PairEditor& e) { first_leaf(e)[level_offset(e)] = 1; })
      .add("root_level", "ERROR", [](PairEditor& e) { e.node(root_of(e, 1))[level_offset(e)] = 0; })
      .add("item_counts", bad_format, [](PairEditor& e) { e.node(leaf_of(e, 3))[2] = 200; })
      .add("item_record_twice", kTwiceRecord,
           [](PairEditor& e) { std::copy_n(leaf_pointer(e, 1), 4, leaf_pointer(e, 2)); })
      .add("items_swapped", "index out of order",
           [](PairEditor& e) {
             const std::vector<Byte*> items = e.items(1, leaf_of(e, 1));
             std::swap_ranges(items[0], items[0] + 16, items[1]);
           })
      .add("dup_numbers_swapped", "index out of order", swap_dup_numbers)
      .add({{"child_beyond", kBadNode, second_child, 0, 4, 99999},
            {"leaf_used_one", bad_format, first_leaf, 0, 2, 1},
            {"leaf_used_none", kLostRecord, first_leaf, 0, 2, 2},
            {"leaf_used_in_an_item", bad_format, first_leaf, 0, 2, 2 + 16 + 9},
            {"leaf_used_too_long", bad_format, first_leaf, 0, 2, 254},
            {"leaf_used_wild", bad_format, first_leaf, 0, 2, 0x7FFF},
            {"item_record_zero", kBadRecord, third_item, 0, 4, 0},
            {"item_record_beyond", kBadRecord, third_item, 0, 4, 0x7FFFFFFF},
            {"item_record_deleted", kBadRecord, third_item, 0, 4, 5}});
}

void add_record_faults(Catalogue& to) {
  to.begin("", false, After::kSound)
      .add("record_absent", kBadRecord, [](PairEditor& e) { *e.state(7) = 0; })
      .add("record_present_though_free", kTwiceRecord, [](PairEditor& e) { *e.state(5) = 0x0A; })
      .add("records_all_absent", kBadRecord, [](PairEditor& e) {
        for (int n = 1; n <= e.built().spec.records; ++n) *e.state(n) = 0;
      });
}

void add_free_list_faults(Catalogue& to) {
  struct List {
    const char* prefix;
    std::string format;
    std::string kind;
    int head;
    int in_use;
  };
  for (const List& list :
       {List{"data_list_", "bad data record free list format", "data record", dict::kFreeData, 7},
        List{"node_list_", "bad index free list format", "index node", dict::kFreeNode, 2}}) {
    const auto head = [list](PairEditor& e) { return e.node(get4(e.dictionary() + list.head)); };
    const std::string pointers = " " + list.kind + " pointer(s)";
    to.begin(list.prefix, false, After::kSound)
        .add("entry_twice", " duplicate" + pointers,
             [=](PairEditor& e) { std::copy_n(head(e) + 6, 4, head(e) + 10); })
        .add("entry_beyond", " bad" + pointers, [=](PairEditor& e) { put4(head(e) + 6, 77777); })
        .add("entry_in_use", " duplicate" + pointers,
             [=](PairEditor& e) { put4(head(e) + 6, list.in_use); })
        .add("entry_lost", " missing" + pointers, [=](PairEditor& e) { add_to_used(head(e), -4); })
        .add("used_four", list.format, [=](PairEditor& e) { put2(head(e), 4); })
        .add("used_too_long", list.format, [=](PairEditor& e) { put2(head(e), 255); })
        .add("used_uneven", " missing" + pointers, [=](PairEditor& e) { add_to_used(head(e), -2); })
        .add("loop", "duplicate index node",
             [=](PairEditor& e) { put4(head(e) + 2, get4(e.dictionary() + list.head)); })
        .add("link_beyond", "bad index node", [=](PairEditor& e) { put4(head(e) + 2, 77777); });
  }
}

// The records of a listed page vanish: nothing uses the page any more.
void forget_records_of_a_listed_page(PairEditor& e) {
  const auto page =
      static_cast<std::int32_t>((listed_page(e) - e.index.data()) / e.built().spec.node_size) + 1;
  for (int number = 1; number <= e.built().spec.records; ++number) {
    if ((get4(e.state(number) + 3) & 0xFFFFFF) == page) *e.state(number) = 0;
  }
}

void add_storage_faults(Catalogue& to) {
  const std::string record = "bad data record";
  const std::string page = "Corrupt variable length record storage page, index node ";
  const std::string lists = "Fix variable length storage free lists ? ";
  to.begin("storage_", true, After::kStays)
      .add({{"length_negative", record, short_trailer, 0, 2, -3},
            {"length_too_long", record, short_trailer, 0, 2, 2000},
            {"reference_zero", record, short_trailer, 2, 4, 0},
            {"reference_beyond", record, short_trailer, 2, 4, 0x00FFFFFF},
            {"reference_slot", record, short_trailer, 2, 1, 0xF0},
            {"page_magic", page, small_page, 3, 1, 0},
            {"no_slots", page, small_page, 21, 1, 0},
            {"slots_past_the_page", page, small_page, 21, 1, 255},
            {"slot_length", page, first_slot, 0, 2, -1},
            {"slot_offset", page, first_slot, 2, 2, 30000},
            {"free_bytes_negative", page, small_page, 12, 2, -1},
            {"continuation_zero", record, long_part, 16, 4, 0}})
      .add("length_past_the_part", record,
           [](PairEditor& e) { add_to_used(short_trailer(e), 300); })
      .add("reference_to_a_leaf", record,
           [](PairEditor& e) { put4(short_trailer(e) + 2, leaf_of(e, 1)); })
      .add("free_bytes_as_if_empty", "",
           [](PairEditor& e) {
             Byte* at = small_page(e);
             put2(at + 12, e.built().spec.node_size - 26 - 4 * at[21]);
           })
      .add("continuation_loop", record,
           [](PairEditor& e) { std::copy_n(trailer_with_part(e, true) + 2, 4, long_part(e) + 16); })
      .add("index_cut", record, [](PairEditor& e) {
        e.index.resize(static_cast<std::size_t>(e.built().spec.node_size) * 6);
      });
  to.begin("storage_", true, After::kSound)
      .add({{"head_beyond", lists, head_of_listed, 0, 4, 99999},
            {"head_negative", lists, dictionary, dict::kStorageHeads, 4, -9}})
      .add("class_byte", lists, [](PairEditor& e) { listed_page(e)[22] ^= 1; })
      .add("previous_link", lists,
           [](PairEditor& e) { put4(e.node(get4(e.node(get4(head_of_listed(e))) + 4)) + 8, 3); })
      .add("list_loop", lists,
           [](PairEditor& e) {
             Byte* head = head_of_listed(e);
             std::copy_n(head, 4, e.node(get4(head)) + 4);
           })
      .add("list_leads_to_a_leaf", lists,
           [](PairEditor& e) { put4(e.node(get4(head_of_listed(e))) + 4, leaf_of(e, 1)); })
      .add("records_of_a_page_gone", kBadRecord, forget_records_of_a_listed_page)
      .add("head_of_class_zero", lists, [](PairEditor& e) {
        std::copy_n(head_of_listed(e), 4, e.dictionary() + dict::kStorageHeads);
      });
}

}  // namespace

const std::vector<Fault>& faults() {
  static const std::vector<Fault> all = [] {
    Catalogue made;
    for (const auto add :
         {add_dictionary_faults, add_file_faults, add_description_faults, add_tree_faults,
          add_record_faults, add_free_list_faults, add_storage_faults}) {
      add(made);
    }
    return made.all;
  }();
  return all;
}

}  // namespace testing_support
