#include "isam/keys/sortkey.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace isam {
namespace {

constexpr int kTypeMask = 127;

// A number by its IEEE-754 bits: null, then the numbers, then what is not a number.
template <typename Bits, typename Number>
void put_number(const Byte* key, Byte* to) {
  constexpr Bits kSign = Bits{1} << (8 * sizeof(Bits) - 1);
  Number value;
  std::memcpy(&value, key, sizeof value);
  Bits sortable;
  if (std::memcmp(key, common::fltnull, sizeof value) == 0) {
    sortable = 0;
  } else if (std::isnan(value)) {
    sortable = ~Bits{0};
  } else {
    const Bits bits = std::bit_cast<Bits>(value == 0 ? Number{0} : value);  // -0 is 0
    sortable = (bits & kSign) != 0 ? ~bits : bits | kSign;
  }
  for (std::size_t i = sizeof(Bits); i-- > 0; sortable >>= 8) to[i] = static_cast<Byte>(sortable);
}

void put_part(int type, const Byte* key, Byte* to, std::size_t length) {
  switch (type) {
    case KT_CHAR:
      std::memcpy(to, key, length);
      return;
    case KT_INT:
    case KT_LONG:
      std::memcpy(to, key, length);
      to[0] ^= 0x80;
      return;
    case KT_DOUBLE:
      return put_number<std::uint64_t, double>(key, to);
    case KT_FLOAT:
      return put_number<std::uint32_t, float>(key, to);
    default:  // KT_COLL1 to KT_COLL7: all values are equal
      std::memset(to, 0, length);
  }
}

}  // namespace

bool SortKey::possible(const keydescr& k) {
  return std::none_of(k.part, k.part + k.nparts,
                      [](const keypart& part) { return (part.type & kTypeMask) == KT_LOCALE; });
}

bool SortKey::is_plain() const {
  return std::all_of(key_.part, key_.part + key_.nparts,
                     [](const keypart& part) { return part.type == KT_CHAR; });
}

void SortKey::make(const Byte* key, Byte* to) const {
  for (int i = 0; i < key_.nparts; ++i) {
    const keypart& part = key_.part[i];
    const auto length = static_cast<std::size_t>(part.length);
    put_part(part.type & kTypeMask, key, to, length);
    if ((part.type & KT_DESC) != 0) {
      std::transform(to, to + length, to, [](Byte byte) { return static_cast<Byte>(~byte); });
    }
    key += length;
    to += length;
  }
}

}  // namespace isam
