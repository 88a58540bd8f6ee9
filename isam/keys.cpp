#include "isam/keys.h"

#include <algorithm>

#include "isam/buffers.h"
#include "isam/errors.h"
#include "locale/collation.h"

namespace isam {
namespace {

constexpr int kTypeMask = 127;
constexpr std::array<int, KT_FLOAT + 1> typelen = {0, 2, 4, 8, 4};  // 0: any length

template <typename T>
int sign_of(T a, T b) {
  return (a > b) - (a < b);
}

template <typename T>
int compare_nullable(T a, bool a_null, T b, bool b_null) {
  if (a_null) return b_null ? 0 : -1;
  return b_null ? 1 : sign_of(a, b);
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

// Bytes of a key-description node that may hold descriptions.
int description_end(const PageHold& page) {
  return std::min(page.used(), node_type_offset(filep->idxsize));
}

bool well_formed(const Byte* stored, int room) {
  if (room < kKeyHeadSize) return false;
  const int size = common::ldword(stored);
  return size >= kKeyHeadSize && size <= room && (size - kKeyHeadSize) % kKeyPartSize == 0 &&
         (size - kKeyHeadSize) / kKeyPartSize <= MAXPARTS;
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
  k.rootnode = common::ldlong(stored + 2);
  k.flags = static_cast<std::int16_t>(stored[6] * 2);
  if (k.nparts == 0) {
    k.part[0].length = 2;
    k.part[0].type = KT_INT;
    return k;
  }
  if ((common::ldword(stored + kKeyHeadSize) & kDuplicatesBit) != 0) k.flags |= KF_DUPS;
  int keylen = 0;
  for (int i = 0; i < k.nparts; ++i) {
    const Byte* from = stored + kKeyHeadSize + i * kKeyPartSize;
    k.part[i].length = static_cast<std::int16_t>(common::ldword(from) & ~kDuplicatesBit);
    k.part[i].start = common::ldshort(from + 2);
    k.part[i].type = from[4];
    keylen += k.part[i].length;
  }
  k.keylen = static_cast<std::int16_t>(keylen);
  return k;
}

KeyChain::KeyChain() : node_(dictp->d_keysnode()), offset_(kEntriesOffset) {}

bool KeyChain::follow(std::int32_t link) {
  if (link == mark_) return false;
  if (++steps_ == next_mark_) {
    mark_ = link;
    next_mark_ *= 2;
  }
  node_ = link;
  offset_ = kEntriesOffset;
  return true;
}

KeyChain::Step KeyChain::next(keydescr& k) {
  if (mark_ == 0) mark_ = node_;
  while (node_ != 0) {
    const PageHold page = bfread(node_);
    if (!page) return Step::kUnreadable;
    const int end = description_end(page);
    if (offset_ < end) {
      const Byte* stored = page.data() + offset_;
      if (!well_formed(stored, end - offset_)) {
        failed(kCorrupted);
        return Step::kMalformed;
      }
      k = kyunpack(stored);
      offset_ += common::ldword(stored);
      return Step::kFound;
    }
    const std::int32_t link = common::ldlong(page.data() + kLinkOffset);
    if (link == 0) {
      node_ = 0;
    } else if (!follow(link)) {
      failed(kCorrupted);
      return Step::kMalformed;
    }
  }
  return Step::kEnd;
}

int kysearch(keydescr& k, int n) {
  KeyChain chain;
  keydescr found{};
  for (int number = 1;; ++number) {
    if (chain.next(found) != KeyChain::Step::kFound) return -1;
    if (number == n) break;
  }
  k = found;
  return n;
}

KeyOrder::KeyOrder(const keydescr& k) : nparts_(k.nparts), keylen_(k.keylen) {
  for (int i = 0; i < nparts_; ++i) {
    parts_[static_cast<std::size_t>(i)] = {k.part[i].length, k.part[i].type & kTypeMask,
                                           (k.part[i].type & KT_DESC) != 0};
    plain_ = plain_ && k.part[i].type == KT_CHAR;
  }
}

int KeyOrder::compare(const Byte* a, const Byte* b, int length) const {
  int left = length < 1 ? keylen_ : length;
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

}  // namespace isam
