// tree_writer: the tree of one index, built bottom-up from the keys of all records.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/support/index_nodes.h"
#include "tests/support/pair_builder.h"

namespace testing_support {

// The records in use, and the bytes of their keys in one index one behind the other.
struct KeysOfRecords {
  const std::vector<std::int32_t>& records;
  const Image& keys;
};

// Writes the tree of `key`, whose root is `root`, into `nodes`.
BuiltIndex write_tree(const PairSpec& spec, const KeySpec& key, const KeysOfRecords& from,
                      std::int32_t root, IndexNodes& nodes);

}  // namespace testing_support
