// damage: one fault at a time, in every structure of a pair.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/support/pair_builder.h"

namespace testing_support {

// Both files of a pair in memory; save() writes them back.
class PairEditor {
 public:
  explicit PairEditor(const BuiltPair& built);
  void save() const;

  [[nodiscard]] const BuiltPair& built() const { return built_; }
  Byte* dictionary() { return index.data(); }
  Byte* node(std::int32_t number);
  // A record's slot and its state byte.
  Byte* slot(int number);
  Byte* state(int number) { return slot(number) + built_.spec.record_length; }
  // The stored description of index n, from 1.
  Byte* description(int n);
  // First bytes of the fixed-size items of a node of an index without compression.
  std::vector<Byte*> items(int n, std::int32_t number);

  Image index;
  Image data;

 private:
  const BuiltPair& built_;
};

enum class After {
  kSound,   // kestro -y leaves a sound pair
  kStays,   // the fault is in a record itself: kestro reports it again
  kRefused  // kestro cannot judge the pair and leaves it alone
};

struct Fault {
  std::string name;
  bool varying;         // of a pair with variable-length records
  std::string finding;  // what a check prints; empty when it may print nothing
  After after;
  std::function<void(PairEditor&)> apply;
};

// The pairs that the faults are made for.
PairSpec fault_spec(bool varying);
const std::vector<Fault>& faults();

}  // namespace testing_support
