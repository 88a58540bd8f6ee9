#include "isam/tree/items.h"

#include <algorithm>
#include <array>

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

// The offsets of the items from `start` to `pos`, in order.
class Offsets {
 public:
  // False when no item ends at `pos`.
  [[nodiscard]] bool find(const ItemLayout& layout, ConstBytes area, int pos, int start = 0) {
    std::size_t count = 0;
    ItemWalk walk{layout, area, start};
    while (walk.end() < pos) {
      if (count == kMostItems || !walk.next()) return false;
      offsets_[count++] = static_cast<std::uint16_t>(walk.start());
    }
    count_ = count;
    return count > 0 && walk.end() == pos;
  }
  [[nodiscard]] std::span<const std::uint16_t> all() const { return {offsets_.data(), count_}; }

 private:
  std::size_t count_ = 0;
  std::array<std::uint16_t, kMostItems> offsets_;
};

// Puts the key of the last of these items together from the back, each byte from the last item
// that stores it, or from `before`. (From the front every item's bytes would be copied, most of
// them in vain.)
inline void gather_key(const ItemLayout& layout, ConstBytes area,
                       std::span<const std::uint16_t> offsets, const Byte* before, Byte* key) {
  int missing = layout.keylen;
  StoredItem stored;
  for (std::size_t i = offsets.size(); missing > 0 && i-- > 0;) {
    if (!itlocate(layout, area, offsets[i], stored)) return;
    if (stored.repeats || stored.leadc >= missing) continue;
    const int bytes = std::min(stored.keyln, missing - stored.leadc);
    const int blanks = missing - stored.leadc - bytes;
    std::memcpy(key + stored.leadc, stored.key, static_cast<std::size_t>(bytes));
    std::memset(key + stored.leadc + bytes, ' ', static_cast<std::size_t>(blanks));
    missing = stored.leadc;
  }
  if (missing > 0) std::memcpy(key, before, static_cast<std::size_t>(missing));
}

// itassemble(), compiled into each of its callers here.
inline int assemble(const ItemLayout& layout, ConstBytes area,
                    std::span<const std::uint16_t> offsets, const Byte* before, Item& item) {
  gather_key(layout, area, offsets, before, item.key);
  return itunpack(layout, area, offsets.back(), item.key, item);
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

int itbefore(const ItemLayout& layout, ConstBytes area, int pos) {
  if (!layout.compressed()) {
    const int start = pos - layout.fixed_size();
    return start >= 0 && start % layout.fixed_size() == 0 ? start : -1;
  }
  Offsets offsets;
  return offsets.find(layout, area, pos) ? offsets.all().back() : -1;
}

int itprevious(const ItemLayout& layout, ConstBytes area, int pos, Item& item,
               const WalkStart& start) {
  if (!layout.compressed()) {
    const int before = itbefore(layout, area, pos);
    return before >= 0 && itunpack(layout, area, before, kNoKey, item) == pos ? before : -1;
  }
  Offsets offsets;
  if (!offsets.find(layout, area, pos, start.offset)) return -1;
  return assemble(layout, area, offsets.all(), start.key, item) == pos ? offsets.all().back() : -1;
}

int itassemble(const ItemLayout& layout, ConstBytes area, std::span<const std::uint16_t> offsets,
               const Byte* before, Item& item) {
  return assemble(layout, area, offsets, before, item);
}

void itpress(const ItemLayout& layout, Item* prev, Item& item, Press press) {
  const int fixed = layout.repeat_size();
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
    // Never more than the previous item's stored key (of one that stores none: its key without
    // trailing blanks). Without trailing compression this item stores its last byte at least.
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
