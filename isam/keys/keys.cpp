#include "isam/keys/keys.h"

#include <algorithm>
#include <cmath>

#include "isam/base/errors.h"
#include "locale/collation.h"

namespace isam {
namespace {

constexpr int kTypeMask = 127;
constexpr int kLeadingBytes = 8;
constexpr std::array<int, KT_FLOAT + 1> typelen = {0, 2, 4, 8, 4};  // 0: any length

template <typename T>
int sign_of(T a, T b) {
  return (a > b) - (a < b);
}

// Null, then the numbers, then what is not a number: a total order whatever the bytes.
template <typename T>
int compare_nullable(T a, bool a_null, T b, bool b_null) {
  if (a_null) return b_null ? 0 : -1;
  if (b_null) return 1;
  if (std::isnan(a) || std::isnan(b)) return sign_of(std::isnan(a), std::isnan(b));
  return sign_of(a, b);
}

int compare_part(int type, const Byte* a, const Byte* b, int length) {
  bool a_null = false;
  bool b_null = false;
  switch (type) {
    case KT_CHAR:
      return common::bycmpr(a, b, static_cast<std::size_t>(length));
    case KT_INT:
      return sign_of(common::ldshort(a), common::ldshort(b));
    case KT_LONG:
      return sign_of(common::ldlong(a), common::ldlong(b));
    case KT_DOUBLE: {
      const double left = common::lddblnull(a, &a_null);
      const double right = common::lddblnull(b, &b_null);
      return compare_nullable(left, a_null, right, b_null);
    }
    case KT_FLOAT: {
      const float left = common::ldfltnull(a, &a_null);
      const float right = common::ldfltnull(b, &b_null);
      return compare_nullable(left, a_null, right, b_null);
    }
    case KT_LOCALE:
      return locale::compare({a, static_cast<std::size_t>(length)},
                             {b, static_cast<std::size_t>(length)});
    default:
      return 0;  // codes with a collating table do not decide the order in a tree
  }
}

}  // namespace

bool clchktype(int type) {
  return type == KT_LOCALE || (type >= KT_COLL1 && type <= KT_COLL7 && type % 16 == 0);
}

int kylegal(keydescr& k, int reclen) {
  if (k.nparts < 1 || k.nparts > MAXPARTS) return failed(kBadKey);
  int keylen = 0;
  for (int i = 0; i < k.nparts; ++i) {
    const keypart& part = k.part[i];
    if (part.start < 0 || part.length < 0 || part.start + part.length > reclen) {
      return failed(kBadKey);
    }
    const int type = part.type & kTypeMask;
    if (!clchktype(type)) {
      if (type > KT_FLOAT) return failed(kBadKey);
      const int required = typelen[static_cast<std::size_t>(type)];
      if (required != 0 && part.length != required) return failed(kBadKey);
    }
    keylen += part.length;
  }
  if (keylen > MAXKEYLEN) return failed(kBadKey);
  k.keylen = static_cast<std::int16_t>(keylen);
  return 0;
}

keydescr kyunpack(const Byte* stored) {
  keydescr k{};
  k.nparts = static_cast<std::int16_t>((common::ldword(stored) - kKeyHeadSize) / kKeyPartSize);
  k.rootnode = common::ldlong(stored + kKeyRootOffset);
  // The byte lacks the lowest flag, KF_DUPS, which stands in the length of the first part.
  k.flags = static_cast<std::int16_t>(stored[kKeyFlagsOffset] * 2);
  if (k.nparts == 0) {
    // So applications are told of the order of record numbers.
    k.part[0].length = 2;
    k.part[0].type = KT_INT;
    return k;
  }
  if ((common::ldword(stored + kKeyHeadSize) & kDuplicatesBit) != 0) k.flags |= KF_DUPS;
  int keylen = 0;
  const Byte* from = stored + kKeyHeadSize;
  for (int i = 0; i < k.nparts; ++i, from += kKeyPartSize) {
    k.part[i].length = static_cast<std::int16_t>(common::ldword(from) & ~kDuplicatesBit);
    k.part[i].start = common::ldshort(from + 2);
    k.part[i].type = from[4];
    keylen += k.part[i].length;
  }
  k.keylen = static_cast<std::int16_t>(keylen);
  return k;
}

void kypack(const keydescr& k, Byte* to) {
  common::stword(static_cast<std::uint32_t>(stored_key_size(k)), to);
  common::stlong(k.rootnode, to + kKeyRootOffset);
  to[kKeyFlagsOffset] = static_cast<Byte>(k.flags >> 1);
  Byte* part = to + kKeyHeadSize;
  for (int i = 0; i < k.nparts; ++i, part += kKeyPartSize) {
    common::stword(static_cast<std::uint16_t>(k.part[i].length), part);
    common::stword(static_cast<std::uint16_t>(k.part[i].start), part + 2);
    part[4] = static_cast<Byte>(k.part[i].type);
  }
  if (k.nparts > 0 && (k.flags & KF_DUPS) != 0) to[kKeyHeadSize] |= kDuplicatesBit >> 8;
}

int kycompare(const keydescr& a, const keydescr& b) {
  const auto same = [](const keypart& x, const keypart& y) {
    return x.start == y.start && x.length == y.length && x.type == y.type;
  };
  return a.nparts == b.nparts && std::equal(a.part, a.part + a.nparts, b.part, same) ? 0 : -1;
}

std::string type_name(int type) {
  constexpr std::array<const char*, KT_FLOAT + 1> kNames = {"char", "int", "long", "double",
                                                            "float"};
  const int base = type & ~KT_DESC;
  if (base >= 0 && base <= KT_FLOAT) return kNames[static_cast<std::size_t>(base)];
  return base == KT_LOCALE ? "locale" : "type " + std::to_string(base);
}

int kyckstart(const keydescr& k, int len) {
  for (int i = 0; i < k.nparts && len > 0; ++i) {
    if (k.part[i].length > len && (k.part[i].type & kTypeMask) == KT_LOCALE) return -1;
    len -= k.part[i].length;
  }
  return 0;
}

bool kynchar(const keydescr& k) {
  return std::any_of(k.part, k.part + k.nparts,
                     [](const keypart& part) { return (part.type & kTypeMask) == KT_LOCALE; });
}

KeyOrder::KeyOrder(const keydescr& k) : nparts_(k.nparts), keylen_(k.keylen) {
  for (int i = 0; i < nparts_; ++i) {
    parts_[static_cast<std::size_t>(i)] = {k.part[i].length, k.part[i].type & kTypeMask,
                                           (k.part[i].type & KT_DESC) != 0};
    plain_ = plain_ && k.part[i].type == KT_CHAR;
    bytewise_ = bytewise_ && (k.part[i].type & kTypeMask) <= KT_LONG;
  }
  if (!plain_) turn_leading();
  if (keylen_ < kLeadingBytes) behind_key_ = 8 * (kLeadingBytes - keylen_);
}

// The top bit of an integer is its sign, and a descending part has all its bits turned over.
void KeyOrder::turn_leading() {
  int at = 0;
  for (int i = 0; i < nparts_; ++i) {
    const Part& part = parts_[static_cast<std::size_t>(i)];
    for (int byte = 0; byte < part.length && at < kLeadingBytes; ++byte, ++at) {
      const unsigned sign = part.type != KT_CHAR && byte == 0 ? 0x80 : 0;
      const unsigned turned = part.descending ? 0xFF ^ sign : sign;
      turned_ |= std::uint64_t{turned} << (8 * (kLeadingBytes - 1 - at));
    }
  }
}

// Only bytes may be compared in part: of a number in which `length` ends all bytes count.
int KeyOrder::compare_parts(const Byte* a, const Byte* b, int length) const {
  int left = length;
  int order = 0;
  for (int i = 0; order == 0 && i < nparts_ && left > 0; ++i) {
    const Part& part = parts_[static_cast<std::size_t>(i)];
    order = compare_part(part.type, a, b, std::min(left, part.length));
    if (part.descending) order = -order;
    a += part.length;
    b += part.length;
    left -= part.length;
  }
  return order;
}

int KeyOrder::compare_in_part(int at, Byte a, Byte b) const {
  for (int i = 0; i < nparts_; ++i) {
    const Part& part = parts_[static_cast<std::size_t>(i)];
    if (at >= part.length) {
      at -= part.length;
      continue;
    }
    // The top bit of an integer is its sign.
    const Byte flip = part.type != KT_CHAR && at == 0 ? 0x80 : 0;
    const int order = int{static_cast<Byte>(a ^ flip)} - int{static_cast<Byte>(b ^ flip)};
    return part.descending ? -order : order;
  }
  return 0;
}

}  // namespace isam
