// items: the entries of tree nodes, as they are stored and as they are worked with.
//
// A node's items are stored compressed against their predecessors, so they can only be read from
// the first one forward, each with the key of the one before at hand.
//
// Stored item: [leading count] [trailing count] [key bytes] [duplicate number] record pointer.
// The top bit of a record pointer says that the next item repeats this key and stores none.
//
// Gives   ItemLayout: what of an item is stored, from its key description and the dictionary
//         Item; itunpack and itprevious to read one, itpress and itpack to store one, itmake,
//         itcompare
// Never   reads outside the area it is given, whatever the bytes say
#pragma once

#include <cstdint>
#include <cstring>
#include <span>

#include "isam.h"
#include "isam/base/current.h"
#include "isam/base/position.h"
#include "isam/keys/keys.h"

namespace isam {

// Which fields the items of an index have.
struct ItemLayout {
  explicit ItemLayout(const keydescr& k)
      : keylen(k.keylen),
        dups((k.flags & KF_DUPS) != 0),
        dcompress((k.flags & KF_DCOMPRESS) != 0),
        lcompress((k.flags & KF_LCOMPRESS) != 0),
        tcompress((k.flags & KF_TCOMPRESS) != 0),
        dupwidth(!dups                     ? 0
                 : dictp->d_dupsize() == 4 ? 4
                                           : 2) {}

  int keylen;
  bool dups;
  bool dcompress;
  bool lcompress;
  bool tcompress;
  int dupwidth;  // 0 without duplicates

  [[nodiscard]] bool compressed() const { return dcompress || lcompress || tcompress; }
  // Whether an item that repeats the key before it can be put in or taken out while all other items
  // stay as they are stored. (Where trailing blanks are stored, how many bytes the next item leaves
  // out depends on whether it follows a repeat.)
  [[nodiscard]] bool repeats_stand_alone() const { return dcompress && (tcompress || !lcompress); }
  // Size of an item that repeats the key before it.
  [[nodiscard]] int repeat_size() const { return dupwidth + kRecordPointerSize; }
  // Size of every item of an index without compression.
  [[nodiscard]] int fixed_size() const { return keylen + repeat_size(); }
  // The greatest duplicate number that its width can store; 0 without duplicates.
  [[nodiscard]] std::int32_t greatest_dupnm() const {
    if (dupwidth == 0) return 0;
    return dupwidth == 4 ? INT32_MAX : UINT16_MAX;
  }
};

// The parts of a stored item, found without putting its key together.
struct StoredItem {
  const Byte* key;  // the key bytes stored
  int leadc;
  int tailc;
  int keyln;
  bool repeats;  // stores no key: it repeats the previous one's
  int end;       // offset of the next item

  [[nodiscard]] const Byte* behind_key() const { return key + keyln; }
};

// Goes over the stored items of an area, without putting their keys together, from `pos` on: 0, or
// where an item ends. It reads nothing outside the area, whatever the bytes say.
class ItemWalk {
 public:
  ItemWalk(const ItemLayout& layout, ConstBytes area, int pos = 0)
      : begin_(area.data()),
        size_(static_cast<int>(area.size())),
        keylen_(layout.keylen),
        fixed_(layout.repeat_size()),
        lcounts_(layout.lcompress),
        tcounts_(layout.tcompress),
        start_(pos),
        end_(pos),
        repeat_bit_(pos > 0 ? begin_[pos - kRecordPointerSize] : Byte{0}) {}

  // Goes to the next item: false when its stored counts are impossible or it runs past the area.
  [[nodiscard]] bool next() {
    start_ = end_;
    repeats_ = (repeat_bit_ & kRepeatBit) != 0;
    key_ = start_;
    leadc_ = tailc_ = keyln_ = 0;
    if (!repeats_) {
      if (size_ - start_ < int{lcounts_} + int{tcounts_}) return false;
      if (lcounts_) leadc_ = begin_[key_++];
      if (tcounts_) tailc_ = begin_[key_++];
      keyln_ = keylen_ - leadc_ - tailc_;
      if (keyln_ < 0) return false;
    }
    end_ = key_ + keyln_ + fixed_;
    if (end_ > size_) return false;
    repeat_bit_ = begin_[end_ - kRecordPointerSize];
    return true;
  }

  // The item that the walk has come to.
  [[nodiscard]] int start() const { return start_; }
  [[nodiscard]] int end() const { return end_; }
  [[nodiscard]] int leadc() const { return leadc_; }
  [[nodiscard]] bool repeats() const { return repeats_; }
  [[nodiscard]] bool is_last() const { return end_ == size_; }
  [[nodiscard]] StoredItem item() const {
    return {begin_ + key_, leadc_, tailc_, keyln_, repeats_, end_};
  }

 private:
  const Byte* begin_;
  int size_;
  int keylen_;
  int fixed_;
  bool lcounts_;
  bool tcounts_;
  int start_;
  int end_;
  int key_ = 0;
  int leadc_ = 0;
  int tailc_ = 0;
  int keyln_ = 0;
  bool repeats_ = false;
  Byte repeat_bit_;  // of the record pointer before end_
};

// Finds the parts of the item at `pos` of an item area, which it does not reach past: false when
// the stored counts are impossible or the item runs past the area.
[[nodiscard]] inline bool itlocate(const ItemLayout& layout, ConstBytes area, int pos,
                                   StoredItem& stored) {
  ItemWalk walk{layout, area, pos};
  if (!walk.next()) return false;
  stored = walk.item();
  return true;
}

// The numbers behind an item's key bytes; `at` is where they stand.
[[nodiscard]] inline std::int32_t stored_dupnm(const ItemLayout& layout, const Byte* at) {
  if (layout.dupwidth == 0) return 0;
  return layout.dupwidth == 4 ? common::ldlong(at) : common::ldword(at);
}
[[nodiscard]] inline std::int32_t stored_recptr(const Byte* at) {
  return common::ldlong(at) & INT32_MAX;
}

// Whether the item at `pos`, behind another one in its area, repeats the key of that one.
[[nodiscard]] inline bool repeats_at(ConstBytes area, int pos) {
  return (area[static_cast<std::size_t>(pos - kRecordPointerSize)] & kRepeatBit) != 0;
}

// Reads the item at `pos` of an item area whose previous item has the key `previous` (it may be
// item.key itself). The offset of the next item, or -1 when the stored counts are impossible or
// the item runs past the area.
[[nodiscard]] inline int itunpack(const ItemLayout& layout, ConstBytes area, int pos,
                                  const Byte* previous, Item& item) {
  StoredItem stored;
  if (!itlocate(layout, area, pos, stored)) return -1;
  item.leadc = stored.leadc;
  item.tailc = stored.tailc;
  item.keyln = stored.keyln;
  if (stored.repeats) {
    item.flag = kRepeatsPrevious;
    if (previous != item.key) {
      std::memcpy(item.key, previous, static_cast<std::size_t>(layout.keylen));
    }
  } else {
    item.flag = 0;
    if (previous != item.key) {
      std::memcpy(item.key, previous, static_cast<std::size_t>(item.leadc));
    }
    std::memcpy(item.key + item.leadc, stored.key, static_cast<std::size_t>(item.keyln));
    std::memset(item.key + item.leadc + item.keyln, ' ', static_cast<std::size_t>(item.tailc));
  }
  const Byte* const numbers = stored.behind_key();
  const Byte* const pointer = numbers + layout.dupwidth;
  item.dupnm = stored_dupnm(layout, numbers);
  if ((*pointer & kRepeatBit) != 0) item.flag |= kNextRepeats;
  item.recptr = stored_recptr(pointer);
  item.totln = stored.end - pos;
  return stored.end;
}

// What a node has at most: the least item is a record pointer.
inline constexpr std::size_t kMostItems = kMaxNodeSize / kRecordPointerSize;

// The key that a node's first item follows.
inline constexpr Byte kNoKey[MAXKEYLEN] = {};

// Where a walk over items may begin: at the item at `offset`. What this takes over from the item
// before it is taken from `key`.
struct WalkStart {
  int offset = 0;
  const Byte* key = kNoKey;
};

// The offset of the item that ends at `pos`, or -1 when none does.
[[nodiscard]] int itbefore(const ItemLayout& layout, ConstBytes area, int pos);
// The same, leaving the item unpacked in `item`. The walk to it begins at `start`, before `pos`,
// whose key is not item.key.
[[nodiscard]] int itprevious(const ItemLayout& layout, ConstBytes area, int pos, Item& item,
                             const WalkStart& start = {});

// Unpacks the last of the items at these offsets, which follow each other, into `item`. The first
// of them takes its leading bytes from `before`, which is not item.key. The offset behind the last
// one, or -1 when its bytes make no item.
[[nodiscard]] int itassemble(const ItemLayout& layout, ConstBytes area,
                             std::span<const std::uint16_t> offsets, const Byte* before,
                             Item& item);

// Where an item is to stand.
enum class Press {
  kAfter,   // behind the item given
  kFirst,   // first of its node
  kRepeat,  // behind an item whose key it repeats, whatever its own key says; where the layout
            // cannot repeat keys (dcompress) its own key is stored
};

// Makes an item, not pressed yet, of a record's key; dupnm and recptr are 0.
void itmake(const Byte* record, Item& item, const keydescr& k);

// Computes the stored form of `item` (flag, totln, keyln, leadc, tailc), and with Press::kAfter
// the flag of `prev`, itself unpacked or pressed, that says whether its key is repeated. `prev` may
// be null with kFirst.
void itpress(const ItemLayout& layout, Item* prev, Item& item, Press press);

// Stores a pressed item at `pos`, and sets or clears the repeat bit of the item before it: the
// offset behind it.
int itpack(const ItemLayout& layout, const Item& item, Bytes area, int pos);

// Compares the keys of two items over at most `len` bytes (below 1: the whole key): negative, 0 or
// positive. Record and duplicate numbers take no part.
[[nodiscard]] inline int itcompare(const Item& a, const Item& b, const KeyOrder& order,
                                   int len = 0) {
  return order.compare(a.key, b.key, len);
}

}  // namespace isam
