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

Fault in_dictionary(const std::string& name, int offset, int width, std::int64_t value,
                    const std::string& finding, After after) {
  return {"dictionary_" + name, false, finding, after,
          [=](PairEditor& e) { (width == 2 ? put2 : put4)(e.dictionary() + offset, value); }};
}

Fault in_fixed(const std::string& name, const std::string& finding,
               std::function<void(PairEditor&)> apply, After after = After::kSound) {
  return {name, false, finding, after, std::move(apply)};
}

Fault in_varying(const std::string& name, const std::string& finding,
                 std::function<void(PairEditor&)> apply, After after = After::kSound) {
  return {"storage_" + name, true, finding, after, std::move(apply)};
}

void add_dictionary_faults(std::vector<Fault>& all) {
  const auto refused = After::kRefused;
  const auto sound = After::kSound;
  const std::string corrupted = "Zentra ERROR 105: Corrupted isam file";
  const std::string format = "Zentra ERROR 171: isam file format change detected";
  for (const Fault& fault : {
           in_dictionary("magic", 0, 2, 0x1234, corrupted, refused),
           in_dictionary("fixed_bytes", 2, 2, 0x0203, corrupted, refused),
           in_dictionary("node_size_small", 6, 2, 100, corrupted, refused),
           in_dictionary("node_size_odd", 6, 2, 2001, corrupted, refused),
           in_dictionary("node_size_later", 6, 2, 2000, format, refused),
           in_dictionary("lock_method_old", 53, 2, 3, format, refused),
           in_dictionary("lock_method_unknown", 53, 2, 900, corrupted, refused),
           in_dictionary("lock_method_none", 53, 2, 0, "", sound),
           in_dictionary("record_size_zero", 13, 2, 0, "bad data record size", refused),
           in_dictionary("record_size_negative", 13, 2, -5, "bad data record size", refused),
           in_dictionary("maximum_negative", 59, 2, -5, "bad data record maximum size", refused),
           in_dictionary("keys_many", 8, 2, 9, "bad number of indexes", sound),
           in_dictionary("keys_none", 8, 2, 0, "bad number of indexes", sound),
           in_dictionary("key_node_beyond", 15, 4, 99999, "bad index node in key descriptors",
                         refused),
           in_dictionary("key_node_negative", 15, 4, -7, "bad index node in key descriptors",
                         refused),
           in_dictionary("key_node_dictionary", 15, 4, 1, "duplicate index node in key descriptors",
                         refused),
           in_dictionary("free_data_beyond", 25, 4, 99999, "bad index node", sound),
           in_dictionary("free_data_none", 25, 4, 0, " missing data record pointer(s)", sound),
           in_dictionary("free_node_beyond", 29, 4, 99999, " bad index node pointer(s)", sound),
           in_dictionary("free_node_none", 29, 4, 0, " missing index node pointer(s)", sound),
           in_dictionary("next_data_low", 33, 4, 10, " duplicate data record pointer(s)", sound),
           in_dictionary("next_data_high", 33, 4, 170, " missing data record pointer(s)", sound),
           in_dictionary("next_data_wild", 33, 4, 2'000'000'000, " missing data record pointer(s)",
                         sound),
           in_dictionary("next_data_negative", 33, 4, -2, " duplicate data record pointer(s)",
                         sound),
           in_dictionary("next_node_low", 37, 4, 10, " duplicate index node pointer(s)", sound),
           in_dictionary("next_node_high", 37, 4, 200, " missing index node pointer(s)", sound),
           in_dictionary("next_node_wild", 37, 4, 2'147'483'647, " missing index node pointer(s)",
                         sound),
           in_dictionary("next_node_negative", 37, 4, -2, " duplicate index node pointer(s)",
                         sound),
       }) {
    all.push_back(fault);
  }
  all.push_back(in_fixed("free_data_head_in_use", "duplicate index node", [](PairEditor& e) {
    put4(e.dictionary() + dict::kFreeData, leaf_of(e, 1));
  }));
  all.push_back(
      in_fixed("free_node_head_in_use", " duplicate index node pointer(s)",
               [](PairEditor& e) { put4(e.dictionary() + dict::kFreeNode, leaf_of(e, 1)); }));
}

void add_file_faults(std::vector<Fault>& all) {
  all.push_back(in_fixed("index_cut_in_a_node", "Zentra ERROR 105", [](PairEditor& e) {
    e.index.resize(static_cast<std::size_t>(leaf_of(e, 3)) * 256 - 100);
  }));
  all.push_back(in_fixed("index_cut_behind_descriptions", "Error in reading index file",
                         [](PairEditor& e) { e.index.resize(2 * 256); }));
  all.push_back(in_fixed("data_cut", " bad data record pointer(s)",
                         [](PairEditor& e) { e.data.resize(e.data.size() / 2); }));
  all.push_back(
      in_fixed("data_gone", " bad data record pointer(s)", [](PairEditor& e) { e.data.clear(); }));
  all.push_back(in_fixed("index_longer", "",
                         [](PairEditor& e) { e.index.resize(e.index.size() + 700, 0xA5); }));
  all.push_back(
      in_fixed("data_longer", "", [](PairEditor& e) { e.data.resize(e.data.size() + 700, 0xA5); }));
}

void add_description_faults(std::vector<Fault>& all) {
  const std::string format = "bad key description format";
  all.push_back(in_fixed(
      "descriptions_loop", "duplicate index node in key descriptors",
      [](PairEditor& e) {
        const std::int32_t last = e.built().key_nodes.back();
        put4(e.node(last) + 2, last);
      },
      After::kRefused));
  all.push_back(in_fixed(
      "descriptions_lead_to_audit_node", "duplicate index node in key descriptors",
      [](PairEditor& e) { put4(e.node(e.built().key_nodes.back()) + 2, e.built().audit_node); },
      After::kRefused));
  const auto with_size = [&](const std::string& name, int size) {
    all.push_back(in_fixed(
        "description_" + name, format, [size](PairEditor& e) { put2(e.description(2), size); },
        After::kRefused));
  };
  with_size("too_small", 6);
  with_size("size_zero", 0);
  with_size("size_uneven", 13);
  with_size("nine_parts", 7 + 45);
  with_size("past_the_node", 0x7000);
  all.push_back(in_fixed(
      "description_part_outside", format, [](PairEditor& e) { put2(e.description(2) + 9, 49); },
      After::kRefused));
  all.push_back(in_fixed(
      "description_unknown_type", format, [](PairEditor& e) { e.description(2)[11] = 5; },
      After::kRefused));
}

void add_tree_faults(std::vector<Fault>& all) {
  const auto with_root = [&](const std::string& name, const std::string& finding,
                             std::function<std::int32_t(PairEditor&)> root) {
    all.push_back(in_fixed("root_" + name, finding,
                           [root](PairEditor& e) { put4(e.description(2) + 2, root(e)); }));
  };
  const std::string bad_node = " bad index node pointer(s)";
  with_root("zero", bad_node, [](PairEditor&) { return 0; });
  with_root("negative", bad_node, [](PairEditor&) { return -3; });
  with_root("beyond", bad_node, [](PairEditor&) { return 99999; });
  with_root("of_another_index", "ERROR", [](PairEditor& e) { return root_of(e, 1); });
  with_root("leaf_of_a_later_index", "ERROR", [](PairEditor& e) { return leaf_of(e, 4); });
  with_root("dictionary", "bad b-tree node (1) format", [](PairEditor&) { return 1; });
  with_root("descriptions", "ERROR", [](PairEditor& e) { return e.built().key_nodes[0]; });
  with_root("audit_node", "ERROR", [](PairEditor& e) { return e.built().audit_node; });
  with_root("free_list_node", "ERROR", [](PairEditor& e) { return e.built().free_node_list[0]; });

  all.push_back(in_fixed("children_crossed", "index out of order", [](PairEditor& e) {
    std::swap_ranges(root_pointer(e, 0), root_pointer(e, 0) + 4, root_pointer(e, 1));
  }));
  all.push_back(in_fixed("child_twice", " duplicate index node pointer(s)", [](PairEditor& e) {
    std::copy_n(root_pointer(e, 0), 4, root_pointer(e, 1));
  }));
  all.push_back(in_fixed("child_is_the_root", " duplicate index node pointer(s)",
                         [](PairEditor& e) { put4(root_pointer(e, 1), root_of(e, 1)); }));
  all.push_back(
      in_fixed("child_beyond", bad_node, [](PairEditor& e) { put4(root_pointer(e, 1), 99999); }));
  all.push_back(in_fixed("child_of_another_index", "ERROR",
                         [](PairEditor& e) { put4(root_pointer(e, 1), leaf_of(e, 5)); }));
  all.push_back(in_fixed("separator_low", "index out of order", [](PairEditor& e) {
    std::fill_n(e.items(1, root_of(e, 1))[1], kPointer, Byte{0});
  }));
  const auto with_used = [&](const std::string& name, const std::string& finding, int used) {
    all.push_back(in_fixed("leaf_used_" + name, finding,
                           [used](PairEditor& e) { put2(e.node(leaf_of(e, 1)), used); }));
  };
  with_used("one", "bad b-tree node (", 1);
  with_used("none", " missing data record pointer(s)", 2);
  with_used("in_an_item", "bad b-tree node (", 2 + 16 + 9);
  with_used("too_long", "bad b-tree node (", 254);
  with_used("wild", "bad b-tree node (", 0x7FFF);
  all.push_back(in_fixed("leaf_level", "ERROR",
                         [](PairEditor& e) { e.node(leaf_of(e, 1))[level_offset(e)] = 1; }));
  all.push_back(in_fixed("root_level", "ERROR",
                         [](PairEditor& e) { e.node(root_of(e, 1))[level_offset(e)] = 0; }));
  all.push_back(in_fixed("item_counts", "bad b-tree node (",
                         [](PairEditor& e) { e.node(leaf_of(e, 3))[2] = 200; }));
  const std::string bad_record = " bad data record pointer(s)";
  all.push_back(
      in_fixed("item_record_zero", bad_record, [](PairEditor& e) { put4(leaf_pointer(e, 2), 0); }));
  all.push_back(in_fixed("item_record_beyond", bad_record,
                         [](PairEditor& e) { put4(leaf_pointer(e, 2), 0x7FFFFFFF); }));
  all.push_back(in_fixed("item_record_deleted", bad_record,
                         [](PairEditor& e) { put4(leaf_pointer(e, 2), 5); }));
  all.push_back(
      in_fixed("item_record_twice", " duplicate data record pointer(s)",
               [](PairEditor& e) { std::copy_n(leaf_pointer(e, 1), 4, leaf_pointer(e, 2)); }));
  all.push_back(in_fixed("items_swapped", "index out of order", [](PairEditor& e) {
    const std::vector<Byte*> items = e.items(1, leaf_of(e, 1));
    std::swap_ranges(items[0], items[0] + 16, items[1]);
  }));
  all.push_back(in_fixed("dup_numbers_swapped", "index out of order", swap_dup_numbers));
}

void add_record_faults(std::vector<Fault>& all) {
  all.push_back(in_fixed("record_absent", " bad data record pointer(s)",
                         [](PairEditor& e) { *e.state(7) = 0; }));
  all.push_back(in_fixed("record_present_though_free", " duplicate data record pointer(s)",
                         [](PairEditor& e) { *e.state(5) = 0x0A; }));
  all.push_back(in_fixed("records_all_absent", " bad data record pointer(s)", [](PairEditor& e) {
    for (int n = 1; n <= e.built().spec.records; ++n) *e.state(n) = 0;
  }));
}

void add_free_list_faults(std::vector<Fault>& all) {
  struct List {
    std::string name;
    std::string format;
    std::string kind;
    int head;
    int in_use;
  };
  for (const List& list :
       {List{"data_list", "bad data record free list format", "data record", dict::kFreeData, 7},
        List{"node_list", "bad index free list format", "index node", dict::kFreeNode, 2}}) {
    const auto head = [list](PairEditor& e) { return e.node(get4(e.dictionary() + list.head)); };
    const auto add = [&](const std::string& name, const std::string& finding,
                         std::function<void(PairEditor&)> apply) {
      all.push_back(in_fixed(list.name + "_" + name, finding, std::move(apply)));
    };
    const std::string duplicate = " duplicate " + list.kind + " pointer(s)";
    add("entry_twice", duplicate,
        [=](PairEditor& e) { std::copy_n(head(e) + 6, 4, head(e) + 10); });
    add("entry_beyond", " bad " + list.kind + " pointer(s)",
        [=](PairEditor& e) { put4(head(e) + 6, 77777); });
    add("entry_in_use", duplicate, [=](PairEditor& e) { put4(head(e) + 6, list.in_use); });
    add("entry_lost", " missing " + list.kind + " pointer(s)",
        [=](PairEditor& e) { add_to_used(head(e), -4); });
    add("used_four", list.format, [=](PairEditor& e) { put2(head(e), 4); });
    add("used_too_long", list.format, [=](PairEditor& e) { put2(head(e), 255); });
    add("used_uneven", " missing " + list.kind + " pointer(s)",
        [=](PairEditor& e) { add_to_used(head(e), -2); });
    add("loop", "duplicate index node",
        [=](PairEditor& e) { put4(head(e) + 2, get4(e.dictionary() + list.head)); });
    add("link_beyond", "bad index node", [=](PairEditor& e) { put4(head(e) + 2, 77777); });
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

void add_storage_faults(std::vector<Fault>& all) {
  const std::string record = "bad data record";
  const std::string page = "Corrupt variable length record storage page, index node ";
  const std::string lists = "Fix variable length storage free lists ? ";
  const auto stays = After::kStays;
  all.push_back(in_varying(
      "length_negative", record, [](PairEditor& e) { put2(trailer_with_part(e, false), -3); },
      stays));
  all.push_back(in_varying(
      "length_too_long", record, [](PairEditor& e) { put2(trailer_with_part(e, false), 2000); },
      stays));
  all.push_back(in_varying(
      "length_past_the_part", record,
      [](PairEditor& e) { add_to_used(trailer_with_part(e, false), 300); }, stays));
  all.push_back(in_varying(
      "reference_zero", record, [](PairEditor& e) { put4(trailer_with_part(e, false) + 2, 0); },
      stays));
  all.push_back(in_varying(
      "reference_beyond", record,
      [](PairEditor& e) { put4(trailer_with_part(e, false) + 2, 0x00FFFFFF); }, stays));
  all.push_back(in_varying(
      "reference_to_a_leaf", record,
      [](PairEditor& e) { put4(trailer_with_part(e, false) + 2, leaf_of(e, 1)); }, stays));
  all.push_back(in_varying(
      "reference_slot", record, [](PairEditor& e) { trailer_with_part(e, false)[2] = 0xF0; },
      stays));
  all.push_back(in_varying(
      "page_magic", page, [](PairEditor& e) { small_page(e)[3] = 0; }, stays));
  all.push_back(in_varying(
      "no_slots", page, [](PairEditor& e) { small_page(e)[21] = 0; }, stays));
  all.push_back(in_varying(
      "slots_past_the_page", page, [](PairEditor& e) { small_page(e)[21] = 255; }, stays));
  all.push_back(in_varying(
      "slot_length", page, [](PairEditor& e) { put2(slot_entry(e, small_page(e), 0), -1); },
      stays));
  all.push_back(in_varying(
      "slot_offset", page, [](PairEditor& e) { put2(slot_entry(e, small_page(e), 0) + 2, 30000); },
      stays));
  all.push_back(in_varying(
      "free_bytes_negative", page, [](PairEditor& e) { put2(small_page(e) + 12, -1); }, stays));
  all.push_back(in_varying(
      "free_bytes_as_if_empty", "",
      [](PairEditor& e) {
        Byte* at = small_page(e);
        put2(at + 12, e.built().spec.node_size - 26 - 4 * at[21]);
      },
      stays));
  all.push_back(in_varying(
      "continuation_zero", record,
      [](PairEditor& e) { put4(page_of(e, trailer_with_part(e, true)) + 16, 0); }, stays));
  all.push_back(in_varying(
      "continuation_loop", record,
      [](PairEditor& e) {
        Byte* trailer = trailer_with_part(e, true);
        std::copy_n(trailer + 2, 4, page_of(e, trailer) + 16);
      },
      stays));
  all.push_back(in_varying("class_byte", lists, [](PairEditor& e) { listed_page(e)[22] ^= 1; }));
  all.push_back(in_varying("previous_link", lists, [](PairEditor& e) {
    Byte* head = e.node(get4(list_head(e, listed_page(e))));
    put4(e.node(get4(head + 4)) + 8, 3);
  }));
  all.push_back(in_varying("list_loop", lists, [](PairEditor& e) {
    Byte* head = list_head(e, listed_page(e));
    std::copy_n(head, 4, e.node(get4(head)) + 4);
  }));
  all.push_back(in_varying("list_leads_to_a_leaf", lists, [](PairEditor& e) {
    put4(e.node(get4(list_head(e, listed_page(e)))) + 4, leaf_of(e, 1));
  }));
  all.push_back(in_varying(
      "index_cut", record,
      [](PairEditor& e) { e.index.resize(static_cast<std::size_t>(e.built().spec.node_size) * 6); },
      stays));
  all.push_back(in_varying("records_of_a_page_gone", " bad data record pointer(s)",
                           forget_records_of_a_listed_page));
  all.push_back(in_varying("head_beyond", lists,
                           [](PairEditor& e) { put4(list_head(e, listed_page(e)), 99999); }));
  all.push_back(in_varying("head_negative", lists,
                           [](PairEditor& e) { put4(e.dictionary() + dict::kStorageHeads, -9); }));
  all.push_back(in_varying("head_of_class_zero", lists, [](PairEditor& e) {
    std::copy_n(list_head(e, listed_page(e)), 4, e.dictionary() + dict::kStorageHeads);
  }));
}

}  // namespace

const std::vector<Fault>& faults() {
  static const std::vector<Fault> all = [] {
    std::vector<Fault> made;
    add_dictionary_faults(made);
    add_file_faults(made);
    add_description_faults(made);
    add_tree_faults(made);
    add_record_faults(made);
    add_free_list_faults(made);
    add_storage_faults(made);
    return made;
  }();
  return all;
}

}  // namespace testing_support
