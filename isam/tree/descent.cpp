#include "isam/tree/descent.h"

#include <algorithm>

namespace isam {

Descent::Descent(Item& sought, Item& found, const keydescr& k, int len, Search mode)
    : sought_(sought),
      found_(found),
      layout_(k),
      order_(k),
      len_(len),
      mode_(mode),
      numbers_(mode == Search::kInsert && layout_.dups),
      skips_(layout_.compressed() && order_.bytewise() && (len < 1 || len >= k.keylen)) {}

bool Descent::choose(const TreeNode& node, PathLevel& level) {
  leaf_ = node.is_leaf();
  const ConstBytes area = node.area();
  const bool found = !layout_.compressed() ? choose_fixed(area, level)
                     : skips_              ? choose_skipping(area, level)
                                           : choose_reading(area, level);
  if (!found) {
    failed(kCorrupted);
  } else if (refused_) {
    failed(kDuplicate);
  }
  return found && !refused_;
}

// Chooses the item at `offset`: true. `result` is negative when it is greater than the one sought.
bool Descent::settle_on(PathLevel& level, int offset, int next, int result) {
  greater_ = result < 0;
  level.offset = offset;
  level.next = next;
  return true;
}

// Orders the item sought against one with an equal key: negative where this one counts as greater.
// An insertion is refused, or its duplicate number raised. (Without duplicates an upper node's key
// refuses none: it may have left the tree.)
int Descent::break_tie(std::int32_t dupnm) {
  switch (mode_) {
    case Search::kRead:
    case Search::kReturn:
      return layout_.dups && sought_.dupnm > dupnm ? 1 : -1;
    case Search::kPast:
      return 0;
    case Search::kInsert:
      break;
  }
  if (layout_.dups && dupnm < layout_.greatest_dupnm()) {
    sought_.dupnm = std::max(sought_.dupnm, dupnm + 1);
    met_equal_ = met_equal_ || leaf_;
  } else if (layout_.dups || leaf_) {
    refused_ = true;
  }
  return 0;
}

// Orders the item sought against the one at `pos`.
int Descent::compare_fixed(ConstBytes area, int pos) {
  const Byte* const stored = area.data() + pos;
  const int result = order_.compare(sought_.key, stored, len_);
  return result != 0 ? result : break_tie(stored_dupnm(layout_, stored + layout_.keylen));
}

// Without compression all items have one size: halves the range before it looks at each.
bool Descent::choose_fixed(ConstBytes area, PathLevel& level) {
  const int size = layout_.fixed_size();
  const int count = level.length / size;
  if (level.length % size != 0) return false;
  int low = 0;
  int high = count - 1;
  while (high - low > 2) {
    const int middle = (low + high) / 2;
    if (compare_fixed(area, middle * size) < 0) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  for (;; ++low) {
    const bool last = low == count - 1;
    const int result = covers_all(last) ? 0 : compare_fixed(area, low * size);
    if (result < 0 || last) return settle_on(level, low * size, (low + 1) * size, result);
  }
}

// Reads item after item.
bool Descent::choose_reading(ConstBytes area, PathLevel& level) {
  const Byte* before = kNoKey;
  for (int pos = 0;;) {
    const int next = itunpack(layout_, area, pos, before, found_);
    if (next < 0) return false;
    const bool last = next == level.length;
    int result = 0;
    if (!covers_all(last)) {
      result = itcompare(sought_, found_, order_, len_);
      if (result == 0) result = break_tie(found_.dupnm);
    }
    if (result < 0 || last) return settle_on(level, pos, next, result);
    before = found_.key;
    pos = next;
  }
}

// Orders the key sought against a stored one whose first `leadc` bytes it is known to share, and
// counts all that they share.
int Descent::compare_bytes(const StoredItem& stored, int& match) const {
  const Byte* const sought = sought_.key;
  int at = stored.leadc;
  for (const Byte* byte = stored.key; byte < stored.behind_key(); ++byte, ++at) {
    if (sought[at] != *byte) {
      match = at;
      return order_.compare_at(at, sought[at], *byte);
    }
  }
  while (at < layout_.keylen && sought[at] == ' ') ++at;
  match = at;
  return at < layout_.keylen ? order_.compare_at(at, sought[at], ' ') : 0;
}

// Goes over the items without putting their keys together. `match` bytes of the item passed last
// are those of the item sought. An item that takes more than these from its predecessor differs
// from the one sought where its predecessor does, so the outcome is the same. Any other has those
// leading bytes in common with the one sought, and is compared behind them.
bool Descent::choose_skipping(ConstBytes area, PathLevel& level) {
  const int keylen = layout_.keylen;
  int match = 0;
  from_ = 0;
  ItemWalk walk{layout_, area};
  while (walk.next()) {
    const bool last = walk.is_last();
    if (covers_all(last)) return settle_on(level, walk.start(), walk.end(), 0);
    const bool same_outcome = walk.repeats() ? match < keylen : walk.leadc() > match;
    if (same_outcome && !last) continue;
    int result = 1;
    if (!same_outcome) {
      const StoredItem stored = walk.item();
      result = stored.repeats ? 0 : compare_bytes(stored, match);
      if (result == 0) result = break_tie(stored_dupnm(layout_, stored.behind_key()));
    }
    if (result < 0) return settle_on(level, walk.start(), walk.end(), result);
    if (!same_outcome) from_ = walk.start();
    if (last) return settle_on(level, walk.start(), walk.end(), result);
  }
  return false;
}

// What the item takes from its predecessor it shares with the one sought, which lies between them.
bool Descent::take(const TreeNode& node, const PathLevel& leaf) {
  if (layout_.compressed() && !skips_) return true;  // choose() has read it
  std::memcpy(found_.key, sought_.key, static_cast<std::size_t>(layout_.keylen));
  const int end = itunpack(layout_, node.area(), leaf.offset, found_.key, found_);
  return end == leaf.next || failed(kCorrupted) == 0;
}

}  // namespace isam
