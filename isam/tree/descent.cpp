#include "isam/tree/descent.h"

#include <algorithm>

namespace isam {
namespace {

// Where the last of the items ends that repeat one key, of which the first stands at `start` and
// all have `length` bytes. Beyond the area where their bytes make no items.
int pass_repeats(ConstBytes area, int start, int length) {
  const auto size = static_cast<int>(area.size());
  int end = start + length;
  while (end < size && repeats_at(area, end)) end += length;
  return end;
}

}  // namespace

Descent::Descent(Item& sought, Item& found, const keydescr& k, int len, Search mode)
    : sought_(sought),
      found_(found),
      layout_(k),
      order_(k),
      len_(len),
      mode_(mode),
      numbers_(mode == Search::kInsert && layout_.dups),
      skips_(layout_.compressed() && order_.bytewise() && (len < 1 || len >= k.keylen)),
      leads_(order_.has_leading() && (len < 1 || len >= k.keylen)) {}

bool Descent::choose(const TreeNode& node, PathLevel& level) {
  leaf_ = node.is_leaf();
  const ConstBytes area = node.area();
  // A leaf is seldom in the processor's caches: the search would wait for one piece after the
  // other.
  if (leaf_) common::prefetch(area.data(), area.size());
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

std::int32_t Descent::choose(const UpperNode& node, PathLevel& level) {
  leaf_ = false;
  const int item = choose_fixed({node.items(), node.count(), node.heads(), UpperNode::kHeadSize});
  if (refused_) return failed(kDuplicate);
  level.offset = node.start_of(item);
  level.next = node.start_of(item + 1);
  return node.child_of(item);
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
int Descent::compare_fixed(const Byte* stored) {
  const int result = order_.compare(sought_.key, stored, len_);
  return result != 0 ? result : break_tie(stored_dupnm(layout_, stored + layout_.keylen));
}

// How many items of a node without compression begin with less than the key sought does. No branch
// depends on what is compared, for it would be predicted wrongly every other time.
std::size_t Descent::count_lesser(const FixedItems& all, std::size_t count) const {
  const std::uint64_t sought = order_.leading(sought_.key);
  std::size_t lesser = 0;
  for (std::size_t left = count; left > 0;) {
    const std::size_t half = (left + 1) / 2;
    const bool is_less = order_.leading(all.heads + (lesser + half - 1) * all.distance) < sought;
    lesser += half & -std::size_t{is_less};
    left -= half;
  }
  return lesser;
}

// Halves the range of items of one size before it looks at each: the one chosen.
int Descent::choose_fixed(const FixedItems& all) {
  const auto size = static_cast<std::size_t>(layout_.fixed_size());
  const auto item_at = [&](int item) { return all.items + static_cast<std::size_t>(item) * size; };
  const auto choose = [this](int item, int result) {
    greater_ = result < 0;
    return item;
  };
  int low = 0;
  int high = all.count - 1;
  if (leads_) {
    const std::uint64_t sought = order_.leading(sought_.key);
    const auto is_greater = [&](int item) {
      return order_.leading(all.heads + static_cast<std::size_t>(item) * all.distance) > sought;
    };
    low = static_cast<int>(count_lesser(all, static_cast<std::size_t>(high)));
    if (low < high && is_greater(low)) return choose(low, -1);
    if (low + 1 < high && is_greater(low + 1)) high = low + 1;
  }
  while (high - low > 2) {
    const int middle = (low + high) / 2;
    if (compare_fixed(item_at(middle)) < 0) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  for (;; ++low) {
    const bool last = low == all.count - 1;
    const int result = covers_all(last) ? 0 : compare_fixed(item_at(low));
    if (result < 0 || last) return choose(low, result);
  }
}

// Without compression all items have one size.
bool Descent::choose_fixed(ConstBytes area, PathLevel& level) {
  const int size = layout_.fixed_size();
  const int count = level.length / size;
  if (level.length % size != 0) return false;
  level.offset =
      size * choose_fixed({area.data(), count, area.data(), static_cast<std::size_t>(size)});
  level.next = level.offset + size;
  return true;
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

// Orders the key sought against a stored one whose first `match` bytes it is known to share, and
// counts all that they share.
inline int Descent::compare_bytes(const Byte* key, int keyln, int& match) const {
  const Byte* const sought = sought_.key;
  const int stored_end = match + keyln;
  int at = match;
  for (; at < stored_end; ++at, ++key) {
    if (sought[at] != *key) {
      match = at;
      return order_.compare_at(at, sought[at], *key);
    }
  }
  while (at < layout_.keylen && sought[at] == ' ') ++at;
  match = at;
  return at < layout_.keylen ? order_.compare_at(at, sought[at], ' ') : 0;
}

// Goes over the items without putting their keys together. `match` bytes of the item passed last
// are those of the item sought. An item that takes more than these from its predecessor differs
// from the one sought where its predecessor does, so the outcome is the same, and so it is of one
// that repeats a key which differs. Any other has its leading bytes in common with the one sought,
// and is compared behind them. Of a leaf's items that repeat the key of one to be inserted the last
// has the greatest number. (Those of an upper node are looked at one by one: its last item may have
// any number.)
bool Descent::choose_skipping(ConstBytes area, PathLevel& level) {
  const Byte* const items = area.data();
  const int size = level.length;
  const int counts = int{layout_.lcompress} + int{layout_.tcompress};
  const int fixed = layout_.repeat_size();
  int match = 0;
  bool repeats = false;
  from_ = 0;
  behind_equal_ = false;
  for (int start = 0, end = 0;; start = end) {
    int result = 1;
    const bool is_equal = match == layout_.keylen;
    if (repeats && ((numbers_ && leaf_) || !is_equal)) {
      end = pass_repeats(area, start, fixed);
      if (end > size) return false;
      if (is_equal) {
        result = break_tie(stored_dupnm(layout_, items + end - fixed));
        from_ = end - fixed;
      }
      if (end == size) {
        behind_equal_ = is_equal;
        return settle_on(level, end - fixed, end, result);
      }
      repeats = false;
      continue;
    }
    int key = start;
    int leadc = match;
    int keyln = 0;
    if (!repeats) {
      if (size - start < counts) return false;
      leadc = layout_.lcompress ? items[key++] : 0;
      keyln = layout_.keylen - leadc - (layout_.tcompress ? items[key++] : 0);
    }
    end = key + keyln + fixed;
    if (keyln < 0 || end > size) return false;
    const bool last = end == size;
    if (leadc <= match && !covers_all(last)) {
      match = leadc;
      result = repeats ? 0 : compare_bytes(items + key, keyln, match);
      if (result == 0) result = break_tie(stored_dupnm(layout_, items + key + keyln));
      if (result >= 0) from_ = start;
    }
    if (result < 0 || last) {
      behind_equal_ = result < 0 ? is_equal : match == layout_.keylen;
      return settle_on(level, start, end, result);
    }
    repeats = repeats_at(area, end);
  }
}

// What the item takes from its predecessor it shares with the one sought, which lies between them.
bool Descent::take(const TreeNode& node, const PathLevel& leaf) {
  if (layout_.compressed() && !skips_) return true;  // choose() has read it
  std::memcpy(found_.key, sought_.key, static_cast<std::size_t>(layout_.keylen));
  const int end = itunpack(layout_, node.area(), leaf.offset, found_.key, found_);
  return end == leaf.next || failed(kCorrupted) == 0;
}

}  // namespace isam
