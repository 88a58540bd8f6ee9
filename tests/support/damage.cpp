#include "tests/support/damage.h"

#include <stdexcept>

#include "tests/support/pair_walk.h"

namespace testing_support {

PairEditor::PairEditor(const BuiltPair& built)
    : index(read_file(built.base + ".idx")), data(read_file(built.base + ".dat")), built_(built) {}

void PairEditor::save() const {
  write_file(built_.base + ".idx", index);
  write_file(built_.base + ".dat", data);
}

Byte* PairEditor::node(std::int32_t number) {
  return &index[static_cast<std::size_t>(number - 1) *
                static_cast<std::size_t>(built_.spec.node_size)];
}

Byte* PairEditor::slot(int number) {
  const int size = built_.spec.record_length + (built_.spec.max_record_length > 0 ? 7 : 1);
  return &data[static_cast<std::size_t>(number - 1) * static_cast<std::size_t>(size)];
}

Byte* PairEditor::description(int n) {
  for (const std::int32_t number : built_.key_nodes) {
    Byte* at = node(number);
    for (int pos = 6; pos < get2(at); pos += get2(at + pos)) {
      if (--n == 0) return at + pos;
    }
  }
  throw std::runtime_error("no such description");
}

PairSpec fault_spec(bool varying) {
  PairSpec spec = varying ? varying_spec(512, 60, 1500, 3) : mixed_spec(256, 150, 4);
  spec.free_nodes = 70;
  spec.audit_node = true;
  if (!varying) {
    for (int number = 30; number < 120; ++number) spec.deleted.insert(number);
  }
  return spec;
}

}  // namespace testing_support
