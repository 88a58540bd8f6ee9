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

struct Walk {
  std::vector<std::string> problems;      // none: the pair is sound
  std::map<std::int32_t, Image> records;  // the readable ones, variable parts included
};

Walk walk_pair(const std::string& base);

Image read_file(const std::string& path);
void write_file(const std::string& path, const Image& bytes);

}  // namespace testing_support
