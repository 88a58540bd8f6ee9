// pair_walk: an independent verdict on a whole pair.
//
// Reads both files into memory and follows everything from the dictionary: every index holds every
// readable record exactly once and in order, free and used nodes and records partition their
// numbers, storage pages and their lists agree. Made for pairs of test size.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/layout.h"

namespace testing_support {

struct WalkedIndex {
  std::vector<std::int32_t> records;  // of its items, in order
  std::vector<std::int64_t> numbers;  // their duplicate numbers
  std::vector<int> leaves;            // items of each leaf, from the left
  int levels = 0;
};

struct Walk {
  std::vector<std::string> problems;      // none: the pair is sound
  std::vector<std::string> untidy;        // what harms nobody, but no sound writer leaves in nodes
  std::map<std::int32_t, Image> records;  // the readable ones, variable parts included
  std::vector<WalkedIndex> indexes;
};

Walk walk_pair(const std::string& base);

Image read_file(const std::string& path);
void write_file(const std::string& path, const Image& bytes);

}  // namespace testing_support
