// items: the entries of tree nodes, as they are stored and as they are worked with.
//
// A node's items are stored compressed against their predecessors, so they can only be read from
// the first one forward, each with the key of the one before at hand.
//
// Stored item: [leading count] [trailing count] [key bytes] [duplicate number] record pointer.
// The top bit of a record pointer says that the next item repeats this key and stores none.
//
// Gives   ItemLayout: what of an item is stored, from its key description and the dictionary
//         Item, and itunpack to read one
#pragma once

#include <cstdint>
#include <cstring>

#include "isam.h"
#include "isam/current.h"

namespace isam {

enum ItemFlag : int {
  kRepeatsPrevious = 1,  // this item repeats the previous item's key and stores no key bytes
  kNextRepeats = 2,      // the next item repeats this item's key
};

struct Item {
  int flag = 0;
  int totln = 0;            // stored length, all fields
  int keyln = 0;            // key bytes stored
  std::int32_t dupnm = 0;   // duplicate number
  std::int32_t recptr = 0;  // record number (leaf) or child node
  int leadc = 0;            // leading key bytes taken from the previous item
  int tailc = 0;            // trailing blanks left out
  Byte key[MAXKEYLEN] = {};
};

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
};

// Reads the item at `pos` of an item area whose previous item has the key `previous` (it may be
// item.key itself). The offset of the next item, or -1 when the stored counts are impossible or
// the item runs past the area.
[[nodiscard]] inline int itunpack(const ItemLayout& layout, ConstBytes area, int pos,
                                  const Byte* previous, Item& item) {
  const Byte* const start = area.data();
  const Byte* at = start + pos;
  const Byte* const end = start + area.size();
  const int fixed = layout.dupwidth + kRecordPointerSize;
  if (pos > 0 && (at[-kRecordPointerSize] & kRepeatBit) != 0) {
    if (end - at < fixed) return -1;
    item.flag = kRepeatsPrevious;
    item.keyln = item.leadc = item.tailc = 0;
    if (previous != item.key) {
      std::memcpy(item.key, previous, static_cast<std::size_t>(layout.keylen));
    }
  } else {
    if (end - at < int{layout.lcompress} + int{layout.tcompress}) return -1;
    item.flag = 0;
    item.leadc = layout.lcompress ? *at++ : 0;
    item.tailc = layout.tcompress ? *at++ : 0;
    item.keyln = layout.keylen - item.leadc - item.tailc;
    if (item.keyln < 0 || end - at < item.keyln + fixed) return -1;
    if (previous != item.key) {
      std::memcpy(item.key, previous, static_cast<std::size_t>(item.leadc));
    }
    std::memcpy(item.key + item.leadc, at, static_cast<std::size_t>(item.keyln));
    std::memset(item.key + item.leadc + item.keyln, ' ', static_cast<std::size_t>(item.tailc));
    at += item.keyln;
  }
  item.dupnm = layout.dupwidth == 0   ? 0
               : layout.dupwidth == 4 ? common::ldlong(at)
                                      : common::ldword(at);
  at += layout.dupwidth;
  if ((*at & kRepeatBit) != 0) item.flag |= kNextRepeats;
  item.recptr = common::ldlong(at) & INT32_MAX;
  at += kRecordPointerSize;
  item.totln = static_cast<int>(at - start) - pos;
  return pos + item.totln;
}

}  // namespace isam
