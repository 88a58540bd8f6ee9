// damage: the files of a pair in memory, to put something wrong into them.
#pragma once

#include <string>

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

  Image index;
  Image data;

 private:
  const BuiltPair& built_;
};

// The pairs that most faults are made for.
PairSpec fault_spec(bool varying);

}  // namespace testing_support
