// pairs: what the recipes of transcripts need of the builder and of the reader of pairs.
//
//   pairs make BASE SHAPE...   makes BASE.idx and BASE.dat and prints what stands where. SHAPE is
//                              "fixed" or "varying" and what is to be otherwise than usual
//   pairs look BASE            prints what is wrong with a pair, and the bytes of its records
#include <cstdio>
#include <exception>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "tests/support/damage.h"
#include "tests/support/pair_walk.h"

namespace {

using namespace testing_support;

// Pieces of a word with `separator` between them.
std::vector<std::string> pieces(const std::string& word, char separator) {
  std::vector<std::string> all;
  std::istringstream from(word);
  for (std::string piece; std::getline(from, piece, separator);) all.push_back(piece);
  return all;
}

// "unique 0,12,char", "dups+repeat+lead+tail 16,16,char+2,4,long-"; a minus behind the type for
// descending; "number" for record numbers.
KeySpec take_key(std::istream& words) {
  static const std::map<std::string, int> flags = {{"unique", 0},
                                                   {"dups", kDups},
                                                   {"repeat", kDCompress},
                                                   {"lead", kLCompress},
                                                   {"tail", kTCompress}};
  static const std::map<std::string, int> types = {
      {"char", kChar}, {"int", kInt}, {"long", kLong}, {"double", kDouble}, {"float", kFloat}};
  KeySpec key;
  std::string said;
  words >> said;
  if (said == "number") return key;
  for (const std::string& flag : pieces(said, '+')) key.flags |= flags.at(flag);
  words >> said;
  for (const std::string& part : pieces(said, '+')) {
    const std::vector<std::string> given = pieces(part, ',');
    const bool descends = given.at(2).ends_with('-');
    const int type = types.at(given[2].substr(0, given[2].size() - (descends ? 1 : 0)));
    key.parts.push_back(
        {std::stoi(given[0]), std::stoi(given[1]), type | (descends ? kDescending : 0)});
  }
  return key;
}

PairSpec take_shape(std::istream& words) {
  std::string what;
  words >> what;
  if (what != "fixed" && what != "varying") throw std::runtime_error("fixed or varying?");
  PairSpec spec = fault_spec(what == "varying");
  const std::map<std::string_view, int*> numbers = {
      {"node-size", &spec.node_size},       {"records", &spec.records},
      {"record-size", &spec.record_length}, {"longest", &spec.max_record_length},
      {"duplicate-width", &spec.dup_width}, {"free-nodes", &spec.free_nodes},
      {"lock-method", &spec.lock_method},   {"records-behind", &spec.records_behind},
      {"nodes-behind", &spec.nodes_behind}};
  bool own_keys = false;
  while (words >> what) {
    if (const auto number = numbers.find(what); number != numbers.end()) {
      words >> *number->second;
    } else if (what == "seed") {
      words >> spec.seed;
    } else if (what == "deleted") {
      int first = 0;
      int last = 0;
      words >> first;
      words.peek() == '-' ? words.ignore(1) >> last : (last = first, words);
      spec.deleted.clear();
      while (first <= last) spec.deleted.insert(first++);
    } else if (what == "scattered") {
      spec.scatter = true;
    } else if (what == "half-full") {
      spec.fill = 0.5;
    } else if (what == "no-audit") {
      spec.audit_node = false;
    } else if (what == "collation") {
      words >> spec.collation;
    } else if (what == "key") {
      if (!own_keys) spec.keys.clear();
      own_keys = true;
      spec.keys.push_back(take_key(words));
    } else {
      throw std::runtime_error("what is " + what + "?");
    }
    if (!words) throw std::runtime_error("what follows " + what + "?");
  }
  std::erase_if(spec.deleted, [&](int n) { return n < 1 || n > spec.records; });
  return spec;
}

void print(const char* name, const std::vector<std::int32_t>& numbers) {
  std::printf("\"%s\": [", name);
  for (std::size_t i = 0; i < numbers.size(); ++i) std::printf(i > 0 ? ", %d" : "%d", numbers[i]);
  std::printf("], ");
}

void make(const std::string& base, std::istream& words) {
  const BuiltPair pair = build_pair(take_shape(words), base);
  std::printf("{\"indexes\": [");
  for (std::size_t i = 0; i < pair.indexes.size(); ++i) {
    const KeySpec& key = pair.spec.keys[i];
    int width = 0;
    for (const PartSpec& part : key.parts) width += part.length;
    std::printf("%s{", i > 0 ? ", " : "");
    print("leaf", pair.indexes[i].leaves);
    print("inner", pair.indexes[i].uppers);
    std::printf("\"root\": %d, \"width\": %d, \"flags\": %d}", pair.indexes[i].root, width,
                key.flags);
  }
  std::printf("], ");
  print("key-node", pair.key_nodes);
  print("record-list", pair.free_data_list);
  print("node-list", pair.free_node_list);
  print("page", pair.small_pages);
  print("big-page", pair.big_pages);
  std::printf(
      "\"audit\": %d, \"node_size\": %d, \"length\": %d, \"slot\": %d, \"slots\": %d, "
      "\"dup_width\": %d}\n",
      pair.audit_node, pair.spec.node_size, pair.spec.record_length,
      pair.spec.record_length + (pair.spec.max_record_length > 0 ? 7 : 1),
      pair.spec.records + pair.spec.records_behind, pair.spec.dup_width);
}

void look(const std::string& base) {
  const Walk walk = walk_pair(base);
  std::printf("%s\n", walk.problems.empty() ? "sound" : ("not sound: " + walk.problems[0]).c_str());
  for (const auto& [number, record] : walk.records) {
    std::printf("%d ", number);
    for (const Byte byte : record) std::printf("%02x", byte);
    std::printf("\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string_view what = argc < 3 ? "" : argv[1];
    std::stringstream words;
    for (int i = 3; i < argc; ++i) words << argv[i] << ' ';
    if (what == "make") {
      make(argv[2], words);
    } else if (what == "look") {
      look(argv[2]);
    } else {
      throw std::runtime_error("make or look?");
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "pairs: %s\n", error.what());
    return 2;
  }
}
