// demo_pairs: makes the pairs that the first look at kestro needs.
//
//   demo_pairs FOLDER     makes FOLDER/sound and FOLDER/damaged, a small customer file twice; of
//                         the second an index has lost an item and a free list names a record
//                         that is in use
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

#include "tests/support/damage.h"

namespace {

using namespace testing_support;

constexpr int kCustomers = 400;
constexpr int kNumberWidth = 8;
constexpr int kNameWidth = 24;
constexpr int kTownWidth = 16;

void put_text(Image& record, int start, int width, const std::string& text) {
  std::fill_n(record.begin() + start, width, Byte{' '});
  std::copy_n(text.begin(), std::min<std::size_t>(text.size(), static_cast<std::size_t>(width)),
              record.begin() + start);
}

void make_customer(int number, Image& record) {
  static const std::string names[] = {"Abel", "Brandt", "Castro", "Dumas", "Eklund", "Fontana"};
  static const std::string towns[] = {"Antwerp", "Bergen", "Cork", "Delft", "Evora"};
  const std::string digits = std::to_string(10'000'000 + number * 7);
  put_text(record, 0, kNumberWidth, digits);
  put_text(record, kNumberWidth, kNameWidth, names[number % 6] + " " + std::to_string(number % 50));
  put_text(record, kNumberWidth + kNameWidth, kTownWidth, towns[number % 5]);
}

PairSpec customers() {
  PairSpec spec;
  spec.record_length = kNumberWidth + kNameWidth + kTownWidth;
  spec.records = kCustomers;
  spec.make_record = make_customer;
  const int all = kDups | kDCompress | kLCompress | kTCompress;
  spec.keys = {{.flags = 0, .parts = {{0, kNumberWidth}}},
               {.flags = all, .parts = {{kNumberWidth, kNameWidth}}},
               {.flags = all, .parts = {{kNumberWidth + kNameWidth, kTownWidth}}}};
  for (int number = 20; number < kCustomers; number += 20) spec.deleted.insert(number);
  return spec;
}

// Takes the last item off the first leaf of the first index, and puts a record in use on the list
// of free ones.
void damage(const BuiltPair& pair) {
  PairEditor editor(pair);
  Byte* leaf = editor.node(pair.indexes[0].leaves.front());
  put2(leaf, get2(leaf) - (kNumberWidth + 4));
  put4(editor.node(pair.free_data_list.front()) + 6, 123);
  editor.save();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: demo_pairs FOLDER\n");
    return 2;
  }
  try {
    const std::string folder = argv[1];
    build_pair(customers(), folder + "/sound");
    std::printf("%s/sound: %d customers, three indexes, sound\n", folder.c_str(), kCustomers);
    damage(build_pair(customers(), folder + "/damaged"));
    std::printf("%s/damaged: the same, with a lost index item and a wrong free-list entry\n",
                folder.c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "demo_pairs: %s\n", error.what());
    return 1;
  }
  return 0;
}
