// keys: key descriptions, which define indexes, and the order of key values.
//
// Gives   legality, packing and unpacking of key descriptions, and KeyOrder for comparing key
//         values: a total order whatever the bytes
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

#include "common/bytes.h"
#include "isam.h"
#include "isam/base/format.h"

namespace isam {

// 0 when `k` has parts and is legal for records of `reclen` bytes: its keylen is computed then.
// Else -1 with 103. A key without parts is refused, too: a caller that allows one looks at nparts
// before.
int kylegal(keydescr& k, int reclen);

// Reads a stored description that has been found well formed.
[[nodiscard]] keydescr kyunpack(const Byte* stored);

// Bytes that a description takes when it is stored.
[[nodiscard]] inline int stored_key_size(const keydescr& k) {
  return kKeyHeadSize + k.nparts * kKeyPartSize;
}

// Writes the stored form of a description that is legal or has no parts at `to`, stored_key_size()
// bytes.
void kypack(const keydescr& k, Byte* to);

// 0 when two descriptions define the same key: the same parts, whatever flags and root; else -1.
[[nodiscard]] int kycompare(const keydescr& a, const keydescr& b);

// Whether a type code (low 7 bits) belongs to a collation: 7, 16, 32, ... 112.
[[nodiscard]] bool clchktype(int type);

// The type of a part in a word, such as "char"; of a collation with its number.
[[nodiscard]] std::string type_name(int type);

// -1 when a partial key of `len` bytes would end inside a locale part, else 0.
[[nodiscard]] int kyckstart(const keydescr& k, int len);

// Whether any part of a description is in the order of the client's locale.
[[nodiscard]] bool kynchar(const keydescr& k);

// Compares key values laid out as the concatenation of their parts.
class KeyOrder {
 public:
  explicit KeyOrder(const keydescr& k);

  // Negative, 0 or positive, over at most `length` bytes (below 1: the whole key); of a number in
  // which they end all bytes count.
  [[nodiscard]] int compare(const Byte* a, const Byte* b, int length = 0) const {
    const int bytes = length < 1 || length > keylen_ ? keylen_ : length;
    return plain_ ? common::bycmpr(a, b, static_cast<std::size_t>(bytes))
                  : compare_parts(a, b, bytes);
  }

  // The same over the whole key, of values whose first `equal` bytes are known to be the same.
  [[nodiscard]] int compare_from(const Byte* a, const Byte* b, int equal) const {
    if (!plain_) return compare(a, b);
    if (equal == keylen_) return 0;
    if (a[equal] != b[equal]) return a[equal] < b[equal] ? -1 : 1;
    return common::bycmpr(a + equal, b + equal, static_cast<std::size_t>(keylen_ - equal));
  }

  // Whether the first byte that differs decides the order of two keys, as it does unless a part
  // is a float, a double or collated.
  [[nodiscard]] bool bytewise() const { return bytewise_; }
  // Orders two keys that first differ at offset `at` by their bytes `a` and `b` there. Only for
  // keys that are bytewise().
  [[nodiscard]] int compare_at(int at, Byte a, Byte b) const {
    return plain_ ? int{a} - int{b} : compare_in_part(at, a, b);
  }

  // Whether leading() orders: keys are bytewise() and not too short.
  [[nodiscard]] bool has_leading() const { return bytewise_ && keylen_ >= kLeastForLeading; }
  // The first bytes of a key, eight at most, as a number: where those of two keys differ, their
  // order is that of the keys. Eight bytes are read, also of a shorter key.
  [[nodiscard]] std::uint64_t leading(const Byte* key) const {
    std::uint64_t word;
    std::memcpy(&word, key, sizeof word);
    return (__builtin_bswap64(word) ^ turned_) >> behind_key_;
  }

 private:
  // Of a stored key so short another four bytes follow, which hold a number.
  static constexpr int kLeastForLeading = 4;

  struct Part {
    int length;
    int type;
    bool descending;
  };

  void turn_leading();
  [[nodiscard]] int compare_parts(const Byte* a, const Byte* b, int length) const;
  [[nodiscard]] int compare_in_part(int at, Byte a, Byte b) const;

  std::array<Part, MAXPARTS> parts_;  // the first nparts_
  int nparts_;
  int keylen_;
  bool plain_ = true;         // unsigned bytes ascending throughout
  bool bytewise_ = true;      // unsigned bytes and integers throughout
  std::uint64_t turned_ = 0;  // bits of leading() that order the other way round
  int behind_key_ = 0;        // bits of its eight bytes that are none of the key's
};

}  // namespace isam
