// keys: key descriptions and the order of key values.
//
// An index is defined by its key description; the descriptions of a file stand in a chain of
// nodes, and an index's number is its place in the chain, counted from 1.
//
// Needs   the current file with its dictionary loaded
// Keeps   K1 a stored description is taken only when its size, its parts and its place in the
//            node agree; anything else is malformed (105)
//         K2 a chain that loops is malformed
// Gives   the descriptions in order, legality, and KeyOrder for comparing key values
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

// Walks the stored descriptions of the current file in index order.
class KeyChain {
 public:
  enum class Step { kFound, kEnd, kMalformed, kUnreadable };

  KeyChain();
  // kFound fills `k`; kMalformed (iserrno 105) and kUnreadable (iserrno as the read left it) end
  // the walk.
  [[nodiscard]] Step next(keydescr& k);

 private:
  [[nodiscard]] bool follow(std::int32_t link);

  std::int32_t node_;
  int offset_;
  // Brent's method: a mark left behind at growing distances meets every loop.
  std::int32_t mark_ = 0;
  std::uint32_t steps_ = 0;
  std::uint32_t next_mark_ = 1;
};

// Fetches description n (from 1) into `k`: n; or -1 with iserrno 0 when there is none, 105 for a
// malformed chain, or the read's error.
int kysearch(keydescr& k, int n);

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
