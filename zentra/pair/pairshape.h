// pairshape: what two pairs have in common that are made alike: lengths, sizes, indexes.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "isam.h"
#include "zentra/pair/readpair.h"
#include "zentra/report/status.h"

namespace zentra {

struct PairShape {
  int least = 0;     // bytes of a record
  int greatest = 0;  // ... the same with fixed length
  int node_size = 1024;
  int duplicate_width = 4;
  std::string collation{};  // empty: no index is in the order of a locale
  std::int32_t unique = 1;  // the next unique id
  std::vector<keydescr> keys{};

  [[nodiscard]] bool is_variable() const { return greatest > least; }
};

// Of the current pair, whose dictionary is read and whose geometry is taken. Nothing where its
// descriptions of indexes cannot be read.
[[nodiscard]] std::optional<PairShape> shape_of_pair();

// The shape of the pair `base`, which --like names, or why it has none. `pair` stays open to read.
struct LikeShape {
  std::optional<PairShape> shape{};
  Status status = Status::kSound;
  std::string why{};
};
[[nodiscard]] LikeShape shape_like(ReadPair& pair, const std::string& base,
                                   std::chrono::milliseconds wait);

// Why no pair can be made so, whatever its records are; empty when nothing is known to be wrong.
// Makes the flags of descriptions such as the library gives them.
[[nodiscard]] std::string shape_fault(PairShape& shape);

}  // namespace zentra
