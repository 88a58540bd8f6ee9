#include "checker/tree_check.h"

#include <algorithm>
#include <array>

#include "isam/base/errors.h"
#include "isam/pool/buffers.h"

namespace checker {
namespace {

constexpr isam::Byte kNoKey[MAXKEYLEN] = {};  // what a node's first item follows

}  // namespace

TreeFindings TreeCheck::run() {
  cktree(key_.rootnode, nullptr, nullptr);
  return found_;
}

void TreeCheck::bad_format(std::int32_t node) {
  check_.found(Code::kIndexNodeMalformed, {.node = node, .key = number_});
  found_.badindex = true;
}

// The new index of a change of node size lacks its trees: nothing is said of that.
void TreeCheck::unreadable(std::int32_t node) {
  found_.badindex = true;
  if (check_.options.sflag == 0) {
    check_.found(Code::kIndexNodeUnreadable, {.node = node, .key = number_});
  }
  check_.report_unreadable_node();
}

void TreeCheck::tell(Code code, const Item* item, const Item* before) const {
  check_.tell({.code = code,
               .key = number_,
               .node = at_.node,
               .slot = at_.slot,
               .record = item == nullptr ? 0 : item->recptr,
               .value = item == nullptr ? nullptr : item->key,
               .before = before == nullptr ? nullptr : before->key,
               .described = &key_});
}

// How many leading bytes an item takes over from the one before it.
int TreeCheck::equal_bytes(const Item& item) const {
  return (item.flag & isam::kRepeatsPrevious) != 0 ? layout_.keylen : item.leadc;
}

inline int TreeCheck::check_pair(const Item& prev, const Item& item, int equal) {
  const int order = order_.compare_from(prev.key, item.key, equal);
  if (order > 0 || (order == 0 && prev.dupnm > item.dupnm)) {
    found_.badorder = true;
    tell(Code::kIndexOutOfOrder, &item, &prev);
  }
  return order;
}

inline bool TreeCheck::check_record(const Item& item) {
  Check& check = check_;
  const std::int32_t record = item.recptr;
  // 0 and negative numbers become greater than any.
  const bool in_range = static_cast<std::uint32_t>(record) - 1 < last_record_;
  if (!in_range || !check.datmap.tstbit(record)) {
    ++found_.baddata;
    tell(Code::kIndexRecordBad, &item);
    return false;
  }
  if (check.datmap2.set_bit(record)) {
    ++found_.dupdata;
    tell(Code::kIndexRecordDuplicate, &item);
    return false;
  }
  return true;
}

template <typename Visit>
bool TreeCheck::visit_items(std::int32_t node, isam::ConstBytes area, Item (&items)[2],
                            Visit visit) {
  const int used = static_cast<int>(area.size());
  const isam::Byte* before = kNoKey;
  int current = 0;
  int slot = 0;
  for (int pos = 0; pos < used; ++slot) {
    Item& item = items[current];
    at_ = {node, slot};
    pos = isam::itunpack(layout_, area, pos, before, item);
    if (pos < 0) {
      bad_format(node);
      return false;
    }
    visit(item, before, pos == used);
    before = item.key;
    current ^= 1;
  }
  return true;
}

const isam::Item* TreeCheck::check_leaf(std::int32_t node, isam::ConstBytes area, const Item* prev,
                                        Item (&items)[2]) {
  progress_.at(items_);
  const auto check = [&](const Item& item, const isam::Byte* before, bool /*last*/) {
    const bool equal = prev != nullptr &&
                       check_pair(*prev, item, before == prev->key ? equal_bytes(item) : 0) == 0;
    if (check_record(item) && tells_) {
      const bool same_number = equal && prev->dupnm == item.dupnm;
      check_.listener.leaf_item({number_, at_.node, at_.slot, equal, same_number}, item);
    }
    ++items_;
    if (lists_) check_.listener.tree_item(item, key_);
    prev = &item;
  };
  return visit_items(node, area, items, check) ? prev : nullptr;
}

const isam::Item* TreeCheck::check_upper(std::int32_t node, isam::ConstBytes area, const Item* prev,
                                         const Item* bound, Item (&items)[2]) {
  const auto check = [&](const Item& item, const isam::Byte* /*before*/, bool last) {
    // The key of a node's last item carries no meaning: it covers all that lies to its right.
    if (prev != nullptr && !last) check_pair(*prev, item, 0);
    found_.maxlevel = std::max(found_.maxlevel, ++level_);
    cktree(item.recptr, prev, last ? bound : &item);
    --level_;
    if (lists_) {
      check_.listener.tree_level(level_);
      check_.listener.tree_item(item, key_);
    }
    if (!last) prev = &item;
  };
  return visit_items(node, area, items, check) ? prev : nullptr;
}

// A bulk load trusts the levels of upper nodes; all else asks only which nodes are leaves. Without
// items a node is a leaf.
void TreeCheck::compare_level(std::int32_t node, int level, int used) {
  const auto depth = static_cast<std::size_t>(level_);
  levels_[depth] = level;
  const int expected = used == 0 ? isam::kLeafLevel : depth == 0 ? level : levels_[depth - 1] - 1;
  if (tells_ && level != expected) check_.listener.odd_level(number_, node, level, expected);
}

void TreeCheck::cktree(std::int32_t node, const Item* prev, const Item* bound) {
  const auto tell_pointer = [&](Code code) {
    check_.tell({.code = code,
                 .key = number_,
                 .node = at_.node,
                 .slot = at_.slot,
                 .pointer = node,
                 .described = &key_});
  };
  if (node < 1 || node > check_.idxlast) {
    ++found_.badindx;
    tell_pointer(Code::kIndexNodeBad);
    return;
  }
  if (check_.idxmap2.set_bit(node)) {
    ++found_.dupindx;
    tell_pointer(Code::kIndexNodeDuplicate);
    return;
  }
  ++found_.cntindx;
  if (level_ >= isam::kMaxTreeLevels) {
    bad_format(node);
    return;
  }
  isam::PageHold page = isam::bfread(node);
  if (!page) return unreadable(node);
  const int used = page.used() - isam::kUsedBytes;
  if (used < 0 || used > isam::item_area_limit(isam::filep->geometry.idxsize)) {
    bad_format(node);
    return;
  }
  if (lists_) check_.listener.tree_node(level_, node, used);
  compare_level(node, page.level(), used);

  Item items[2];  // here, because `last` leads into it
  const auto area = page.bytes().subspan(isam::kUsedBytes, static_cast<std::size_t>(used));
  const Item* last = nullptr;
  if (page.level() == isam::kLeafLevel) {
    last = check_leaf(node, area, prev, items);
    page.release();
  } else {
    std::array<isam::Byte, isam::kMaxNodeSize> copy;  // no page is held during the descent
    common::copy_bytes(area, copy.data());
    page.release();
    last = check_upper(node, {copy.data(), area.size()}, prev, bound, items);
  }
  if (bound != nullptr && last != nullptr) check_pair(*last, *bound, 0);
}

}  // namespace checker
