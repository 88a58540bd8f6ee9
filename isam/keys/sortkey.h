// sortkey: key values as byte strings whose plain order is the order of the key.
//
// Needs   a legal key description without locale parts: no byte string of fixed length can give the
//         order of these
// Keeps   two keys have equal sort keys exactly when KeyOrder finds them equal
#pragma once

#include <cstddef>

#include "isam.h"
#include "isam/base/format.h"

namespace isam {

class SortKey {
 public:
  explicit SortKey(const keydescr& k) : key_(k) {}

  // Whether a key has sort keys: it has no locale part.
  [[nodiscard]] static bool possible(const keydescr& k);
  // Whether the key's own bytes are its sort key.
  [[nodiscard]] bool is_plain() const;
  // Length of the sort key in bytes: that of the key.
  [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(key_.keylen); }
  // Writes the sort key of a key value; both have size() bytes.
  void make(const Byte* key, Byte* to) const;

 private:
  keydescr key_;
};

}  // namespace isam
