#include "tests/transcripts/shape.h"

#include <map>
#include <string_view>

#include "tests/support/damage.h"

namespace testing_support {
namespace {

// Pieces of a word with `separator` between them.
std::vector<std::string> pieces(const std::string& word, char separator) {
  std::vector<std::string> all;
  std::istringstream from(word);
  for (std::string piece; std::getline(from, piece, separator);) all.push_back(piece);
  return all;
}

// "0,12,char"; a minus behind the type for descending.
PartSpec part_of(const Words& words, const std::string& word) {
  static const std::map<std::string, int> types = {
      {"char", kChar}, {"int", kInt}, {"long", kLong}, {"double", kDouble}, {"float", kFloat}};
  const std::vector<std::string> said = pieces(word, ',');
  if (said.size() != 3) words.fail("no part of a key: " + word);
  const bool descends = said[2].ends_with('-');
  const auto type = types.find(said[2].substr(0, said[2].size() - (descends ? 1 : 0)));
  if (type == types.end()) words.fail("no type: " + said[2]);
  return {static_cast<int>(words.to_number(said[0])), static_cast<int>(words.to_number(said[1])),
          type->second | (descends ? kDescending : 0)};
}

// "unique 0,12,char", "dups+repeat+lead+tail 16,16,char+2,4,long", "number" for record numbers.
KeySpec take_key(Words& words) {
  static const std::map<std::string, int> flags = {{"unique", 0},
                                                   {"dups", kDups},
                                                   {"repeat", kDCompress},
                                                   {"lead", kLCompress},
                                                   {"tail", kTCompress}};
  KeySpec key;
  const std::string said = words.take();
  if (said == "number") return key;
  for (const std::string& flag : pieces(said, '+')) {
    if (!flags.contains(flag)) words.fail("no flag: " + flag);
    key.flags |= flags.at(flag);
  }
  for (const std::string& part : pieces(words.take(), '+')) {
    key.parts.push_back(part_of(words, part));
  }
  return key;
}

bool take_number(const std::string& what, Words& words, PairSpec& spec) {
  const std::map<std::string_view, int*> numbers = {
      {"node-size", &spec.node_size},       {"records", &spec.records},
      {"record-size", &spec.record_length}, {"longest", &spec.max_record_length},
      {"duplicate-width", &spec.dup_width}, {"free-nodes", &spec.free_nodes},
      {"lock-method", &spec.lock_method},   {"records-behind", &spec.records_behind},
      {"nodes-behind", &spec.nodes_behind}};
  const auto at = numbers.find(what);
  if (at == numbers.end()) return false;
  *at->second = static_cast<int>(words.number());
  return true;
}

}  // namespace

PairSpec take_shape(Words& words, PairSpec spec) {
  bool own_keys = false;
  while (!words.empty()) {
    const std::string what = words.take();
    if (take_number(what, words, spec)) continue;
    if (what == "seed") {
      spec.seed = static_cast<std::uint32_t>(words.number());
    } else if (what == "deleted") {
      spec.deleted.clear();
      for (const int number : words.to_numbers(words.take())) spec.deleted.insert(number);
    } else if (what == "scattered") {
      spec.scatter = true;
    } else if (what == "half-full") {
      spec.fill = 0.5;
    } else if (what == "no-audit") {
      spec.audit_node = false;
    } else if (what == "collation") {
      spec.collation = words.take();
    } else if (what == "key") {
      if (!own_keys) spec.keys.clear();
      own_keys = true;
      spec.keys.push_back(take_key(words));
    } else {
      words.fail("what is " + what + "?");
    }
  }
  std::erase_if(spec.deleted, [&](int n) { return n < 1 || n > spec.records; });
  return spec;
}

PairSpec take_shape(Words& words) {
  const std::string format = words.take();
  if (format != "fixed" && format != "varying") words.fail("fixed or varying?");
  return take_shape(words, fault_spec(format == "varying"));
}

}  // namespace testing_support
