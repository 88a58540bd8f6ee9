#include "isam/items.h"

#include <algorithm>

namespace isam {
namespace {

// Length of a key without its trailing blanks.
int stored_extent(const Byte* key, int length) {
  while (length > 0 && key[length - 1] == ' ') --length;
  return length;
}

int shared_bytes(const Byte* a, const Byte* b, int limit) {
  return static_cast<int>(std::mismatch(a, a + std::max(limit, 0), b).first - a);
}

bool repeats(const ItemLayout& layout, const Item* prev, const Item& item, Press press) {
  if (!layout.dcompress || press == Press::kFirst) return false;
  return press == Press::kRepeat ||
         std::memcmp(prev->key, item.key, static_cast<std::size_t>(layout.keylen)) == 0;
}

void set_flag(Item& item, int flag, bool on) {
  item.flag = on ? item.flag | flag : item.flag & ~flag;
}

}  // namespace

void itmake(const Byte* record, Item& item, const keydescr& k) {
  item.flag = 0;
  item.dupnm = item.recptr = 0;
  Byte* to = item.key;
  for (int i = 0; i < k.nparts; ++i) {
    const auto length = static_cast<std::size_t>(k.part[i].length);
    std::memcpy(to, record + k.part[i].start, length);
    to += length;
  }
}

void itpress(const ItemLayout& layout, Item* prev, Item& item, Press press) {
  const int fixed = layout.dupwidth + kRecordPointerSize;
  const bool repeated = repeats(layout, prev, item, press);
  set_flag(item, kRepeatsPrevious, repeated);
  if (press == Press::kAfter) set_flag(*prev, kNextRepeats, repeated);
  item.leadc = item.tailc = item.keyln = 0;
  if (repeated) {
    item.totln = fixed;
    return;
  }
  int length = layout.keylen;
  if (layout.tcompress) {
    const int extent = stored_extent(item.key, layout.keylen);
    item.tailc = layout.keylen - extent;
    length = extent + 1;
  }
  if (layout.lcompress && press != Press::kFirst) {
    // Never more than the previous item's stored key, nor the whole of this one.
    const bool prev_stores = (prev->flag & kRepeatsPrevious) == 0;
    const int prev_extent =
        prev_stores ? layout.keylen - prev->tailc : stored_extent(prev->key, layout.keylen);
    item.leadc = std::min(shared_bytes(item.key, prev->key, length - 1), prev_extent);
  }
  item.keyln = layout.keylen - item.leadc - item.tailc;
  item.totln = int{layout.lcompress} + int{layout.tcompress} + item.keyln + fixed;
}

int itpack(const ItemLayout& layout, const Item& item, Bytes area, int pos) {
  Byte* at = area.data() + pos;
  const bool stores_key = (item.flag & kRepeatsPrevious) == 0;
  if (pos > 0) {
    Byte& previous = at[-kRecordPointerSize];
    previous = static_cast<Byte>(stores_key ? previous & ~kRepeatBit : previous | kRepeatBit);
  }
  if (stores_key) {
    if (layout.lcompress) *at++ = static_cast<Byte>(item.leadc);
    if (layout.tcompress) *at++ = static_cast<Byte>(item.tailc);
    std::memcpy(at, item.key + item.leadc, static_cast<std::size_t>(item.keyln));
    at += item.keyln;
  }
  if (layout.dupwidth == 4) {
    common::stlong(item.dupnm, at);
  } else if (layout.dupwidth == 2) {
    common::stword(static_cast<std::uint32_t>(item.dupnm), at);
  }
  at += layout.dupwidth;
  common::stlong(item.recptr, at);
  if ((item.flag & kNextRepeats) != 0) *at |= kRepeatBit;
  return pos + item.totln;
}

}  // namespace isam
