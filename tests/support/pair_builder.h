// pair_builder: sound pairs made without the library, byte by byte.
//
// The trees are built bottom-up from sorted keys; records come from a seed, the same everywhere.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/layout.h"

namespace testing_support {

struct PartSpec {
  int start;
  int length;
  int type = kChar;
};

struct KeySpec {
  int flags = 0;
  std::vector<PartSpec> parts;  // none: the order of record numbers
};

struct PairSpec {
  int node_size = 1024;
  int dup_width = 2;
  int record_length = 50;
  int max_record_length = 0;  // 0: fixed length
  std::vector<KeySpec> keys;
  int records = 100;           // slots, the deleted ones included
  std::set<int> deleted = {};  // record numbers on the free list
  std::uint32_t seed = 1;
  bool scatter = false;  // node numbers in no order
  int free_nodes = 0;    // extra nodes on the free list
  double fill = 1.0;     // how full nodes are made, 0.3 to 1
  bool audit_node = false;
  int lock_method = 8;
  std::string collation = {};
  int records_behind = 0;  // absent slots in the file past the highest in use
  int nodes_behind = 0;    // nodes in the file past the highest in use
  // Makes the bytes of a record; by default they suit the keys and the first key is unique.
  std::function<void(int number, Image& record)> make_record = {};
};

struct BuiltIndex {
  std::int32_t root = 0;
  std::vector<std::int32_t> leaves;  // in key order
  std::vector<std::int32_t> uppers;  // lower levels first, the root last
};

// What stands where.
struct BuiltPair {
  PairSpec spec;
  std::string base;
  std::vector<BuiltIndex> indexes;
  std::vector<std::int32_t> key_nodes;
  std::vector<std::int32_t> free_node_list;  // list nodes, head first
  std::vector<std::int32_t> free_data_list;
  std::vector<std::int32_t> big_pages;
  std::vector<std::int32_t> small_pages;
  std::int32_t audit_node = 0;
  std::int32_t last_node = 0;  // highest in use
};

// Writes BASE.idx and BASE.dat. Throws std::runtime_error when that fails.
BuiltPair build_pair(const PairSpec& spec, const std::string& base);

// Ready-made shapes: five indexes of all types and compressions over records of 50 bytes.
PairSpec mixed_spec(int node_size, int records, std::uint32_t seed);
// Two indexes, records of 40 to `longest` bytes.
PairSpec varying_spec(int node_size, int records, int longest, std::uint32_t seed);

}  // namespace testing_support
