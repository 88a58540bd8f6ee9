// places: what a recipe calls the parts of a pair, and the numbers in them.
//
//   header, description 2, key-node last, audit, node 7, root 1, inner 1.2, leaf 1.last,
//   item 1.2.3 (the third of that leaf), inner-item 1.2.3, root-item 1.3, record-list 1,
//   node-list 1, page 1, big-page 1, listed-page 1, page-of 5 (of that record), record 5,
//   records 5-9
// Each has its own words for its numbers, such as "used" or "link"; byte-12, word-12 and long-12
// are the 1, 2 and 4 bytes there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/damage.h"
#include "tests/transcripts/words.h"

namespace testing_support {

struct Place {
  enum class Kind { kHeader, kDescription, kNode, kItem, kPage, kRecord } kind;
  Byte* at;
  int size;
  int key_width = 0;  // of items
  int dup_width = 0;
};

struct Field {
  Byte* at;
  int width;  // bytes
};

std::vector<Place> take_places(PairEditor& editor, Words& words);
Place take_place(PairEditor& editor, Words& words);
Field take_field(PairEditor& editor, const Place& place, Words& words);
// The number of the node that a place is, or stands in.
std::int32_t number_of(PairEditor& editor, const Place& place);

std::int64_t get(const Field& field);
void put(const Field& field, std::int64_t value);

}  // namespace testing_support
