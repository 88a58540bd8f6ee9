#include "tests/support/damaged_pair.h"

#include <algorithm>
#include <iterator>

#include "tests/support/damage.h"
#include "tests/support/made_records.h"

namespace testing_support {
namespace {

int pick(Random& random, int below) { return static_cast<int>(random(std::max(below, 1))); }

template <typename Range>
auto& one_of(const Range& range, Random& random) {
  return *(std::begin(range) + pick(random, static_cast<int>(std::size(range))));
}

std::int32_t some_node(PairEditor& e, Random& random) {
  const int held = static_cast<int>(e.index.size()) / e.built().spec.node_size;
  return 1 + pick(random, std::min(held, static_cast<int>(e.built().last_node)));
}

// A number that may stand where another one stood.
std::int32_t some_number(PairEditor& e, Random& random, std::int32_t before) {
  const std::int32_t numbers[] = {0,
                                  1,
                                  -1,
                                  before + 1,
                                  before - 1,
                                  some_node(e, random),
                                  e.built().last_node,
                                  e.built().last_node + 1,
                                  e.built().spec.records,
                                  e.built().spec.records + 1,
                                  0x7FFFFFFF,
                                  static_cast<std::int32_t>(random(70000))};
  return one_of(numbers, random);
}

void change2(PairEditor& e, Random& random, Byte* at) {
  put2(at, some_number(e, random, get2(at)));
}
void change4(PairEditor& e, Random& random, Byte* at) {
  put4(at, some_number(e, random, get4(at)));
}

Byte* place_in_node(PairEditor& e, Random& random) {
  return e.node(some_node(e, random)) + pick(random, e.built().spec.node_size - 4);
}

bool has_slot(PairEditor& e, const Byte* slot) {
  return slot + e.built().spec.record_length + 7 <= e.data.data() + e.data.size();
}

using Damage = void (*)(PairEditor& e, Random& random);
constexpr Damage kDamages[] = {
    [](PairEditor& e, Random& random) {
      *place_in_node(e, random) = static_cast<Byte>(random(256));
    },
    [](PairEditor& e, Random& random) { change4(e, random, place_in_node(e, random)); },
    [](PairEditor& e, Random& random) {  // any field of the dictionary
      change2(e, random, e.dictionary() + pick(random, dict::kCollation));
    },
    [](PairEditor& e, Random& random) {
      constexpr int kFields[] = {dict::kFreeData, dict::kFreeNode,  dict::kNextData,
                                 dict::kNextNode, dict::kAuditNode, dict::kKeyNode};
      change4(e, random, e.dictionary() + one_of(kFields, random));
    },
    [](PairEditor& e, Random& random) {
      change4(e, random, e.dictionary() + dict::kStorageHeads + 4 * pick(random, 5));
    },
    [](PairEditor& e, Random& random) {  // bytes in use
      change2(e, random, e.node(some_node(e, random)));
    },
    [](PairEditor& e, Random& random) {  // the link of a node that has one
      change4(e, random, e.node(some_node(e, random)) + 2);
    },
    [](PairEditor& e, Random& random) {  // kind or level
      const int from_end = 1 + pick(random, 4);
      e.node(some_node(e, random))[e.built().spec.node_size - from_end] =
          static_cast<Byte>(random(3) == 0 ? random(256) : random(3));
    },
    [](PairEditor& e, Random& random) {
      std::copy_n(e.node(some_node(e, random)), e.built().spec.node_size,
                  e.node(some_node(e, random)));
    },
    [](PairEditor& e, Random& random) {
      std::fill_n(e.node(some_node(e, random)), e.built().spec.node_size, Byte{0});
    },
    [](PairEditor& e, Random& random) {  // a leaf: used count or somewhere in the items
      const auto& leaves = one_of(e.built().indexes, random).leaves;
      if (leaves.empty()) return;
      change2(e, random, e.node(one_of(leaves, random)) + pick(random, 60));
    },
    [](PairEditor& e, Random& random) {  // an inner node
      const auto& uppers = one_of(e.built().indexes, random).uppers;
      if (uppers.empty()) return;
      change4(e, random, e.node(one_of(uppers, random)) + pick(random, 60));
    },
    [](PairEditor& e, Random& random) {  // a list of free records or nodes
      const auto& list = random(2) == 0 ? e.built().free_data_list : e.built().free_node_list;
      if (!list.empty()) change4(e, random, e.node(list.front()) + 2 + 4 * pick(random, 6));
    },
    [](PairEditor& e, Random& random) {  // the head of a storage page, or its first slots
      const auto& pages = random(2) == 0 ? e.built().big_pages : e.built().small_pages;
      if (pages.empty()) return;
      Byte* const page = e.node(one_of(pages, random));
      const int size = e.built().spec.node_size;
      change2(e, random, random(2) == 0 ? page + pick(random, 24) : page + size - 16 + random(12));
    },
    [](PairEditor& e, Random& random) {
      Byte* const slot = e.slot(1 + pick(random, e.built().spec.records));
      if (has_slot(e, slot)) slot[e.built().spec.record_length] ^= 0x0A;
    },
    [](PairEditor& e, Random& random) {  // a key of a record
      Byte* const slot = e.slot(1 + pick(random, e.built().spec.records));
      if (has_slot(e, slot)) slot[pick(random, 30)] ^= static_cast<Byte>(1U << random(8));
    },
    [](PairEditor& e, Random& random) {  // a key that may occur once
      Byte* const slot = e.slot(1 + pick(random, e.built().spec.records));
      if (has_slot(e, slot)) std::copy_n(e.slot(1), 12, slot);
    },
    [](PairEditor& e, Random& random) {
      put2(e.dictionary() + dict::kLockMethod, pick(random, 9));
    },
    [](PairEditor& e, Random& random) {
      e.dictionary()[dict::kCollate + pick(random, 2)] = static_cast<Byte>(random(3));
    },
    [](PairEditor& e, Random& random) {  // where a variable part stands, or how long it is
      Byte* const slot = e.slot(1 + pick(random, e.built().spec.records));
      if (has_slot(e, slot)) change2(e, random, slot + e.built().spec.record_length + random(5));
    },
    [](PairEditor& e, Random& random) {  // a description of a key
      Byte* const at = e.node(e.built().key_nodes.front()) + 6 + pick(random, 40);
      *at = static_cast<Byte>(random(2) == 0 ? random(256) : random(12));
    }};

// The files themselves become shorter or longer.
void change_size(PairEditor& e, Random& random) {
  Image& file = random(2) == 0 ? e.index : e.data;
  const auto size = static_cast<std::uint32_t>(file.size());
  if (random(3) == 0) {
    file.resize(size + random(3000), static_cast<Byte>(random(256)));
  } else {
    file.resize(random(2) == 0 ? random(size) : size - random(std::min(size, 600U)));
  }
}

PairSpec shape(int number, int most_records, Random& random) {
  constexpr int kNodeSizes[] = {128, 256, 512, 1024, 640, 1000};
  const int node_size = kNodeSizes[static_cast<unsigned>(number) / 2 % std::size(kNodeSizes)];
  const auto seed = static_cast<std::uint32_t>(number);
  const int records = 5 + pick(random, most_records);
  PairSpec spec = number % 2 == 0 ? mixed_spec(node_size, records, seed)
                                  : varying_spec(node_size, records / 2 + 1,
                                                 100 + pick(random, 3 * node_size), seed);
  spec.free_nodes = pick(random, 90);
  spec.audit_node = random(3) == 0;
  if (random(4) == 0) spec.records_behind = pick(random, 9);
  if (random(4) == 0) spec.nodes_behind = pick(random, 9);
  return spec;
}

}  // namespace

// Every fourth pair is of the usual shape.
void write_damaged_pair(int number, const std::string& base, int most_records) {
  Random random(static_cast<std::uint64_t>(number) + 1);
  const PairSpec spec =
      number % 4 == 3 ? fault_spec(number % 8 == 3) : shape(number, most_records, random);
  const BuiltPair built = build_pair(spec, base);
  PairEditor editor(built);
  const bool whole = editor.index.size() > static_cast<std::size_t>(4 * spec.node_size);
  for (int damages = 1 + pick(random, 3); damages > 0 && whole; --damages) {
    one_of(kDamages, random)(editor, random);
  }
  if (random(8) == 0) change_size(editor, random);
  editor.save();
}

}  // namespace testing_support
