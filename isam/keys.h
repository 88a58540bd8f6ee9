// keys: key descriptions, which define indexes, and the order of key values.
//
// Gives   legality and unpacking of key descriptions, and KeyOrder for comparing key values
#pragma once

#include <array>
#include <cstdint>

#include "isam.h"
#include "isam/format.h"

namespace isam {

// 0 when `k` is legal for records of `reclen` bytes, with keylen computed; else -1 with 103.
int kylegal(keydescr& k, int reclen);

// Reads a stored description that has been found well formed.
[[nodiscard]] keydescr kyunpack(const Byte* stored);

// Whether a type code (low 7 bits) belongs to a collation: 7, 16, 32, ... 112.
[[nodiscard]] bool clchktype(int type);

// Compares key values laid out as the concatenation of their parts.
class KeyOrder {
 public:
  explicit KeyOrder(const keydescr& k);

  // Negative, 0 or positive, over at most `length` bytes (below 1: the whole key).
  [[nodiscard]] int compare(const Byte* a, const Byte* b, int length = 0) const;

  // The same over the whole key, of values whose first `equal` bytes are known to be the same.
  [[nodiscard]] int compare_from(const Byte* a, const Byte* b, int equal) const {
    if (!plain_) return compare(a, b);
    return std::memcmp(a + equal, b + equal, static_cast<std::size_t>(keylen_ - equal));
  }

 private:
  struct Part {
    int length;
    int type;
    bool descending;
  };

  std::array<Part, MAXPARTS> parts_{};
  int nparts_;
  int keylen_;
  bool plain_ = true;  // unsigned bytes ascending throughout
};

}  // namespace isam
