#include "isam/tree/indexmerge.h"

#include <algorithm>

#include "isam/base/errors.h"
#include "isam/tree/btree.h"
#include "isam/tree/treenode.h"

namespace isam {
namespace {

constexpr std::size_t kNumberSize = 4;
constexpr std::int32_t kUnlimited = INT32_MAX;

}  // namespace

Refusals::Refusals(std::int32_t first, std::int32_t count, common::Sorter::Shape shape)
    : first_(first), count_(count), members_(std::move(shape)) {}

void Refusals::leave_out(std::int32_t first, std::int32_t count) {
  refused_.resize(static_cast<std::size_t>(count_));
  std::fill_n(refused_.begin() + (first - first_), count, true);
}

int Refusals::add_member(std::int32_t number) {
  Byte entry[2 * kNumberSize];
  common::stlong(number, entry);
  common::stlong(static_cast<std::int32_t>(room_.size()) - 1, entry + kNumberSize);
  return members_.add(entry) == 0 ? 0 : failed_system(errno);
}

int Refusals::decide() {
  if (room_.empty()) return 0;
  if (members_.finish() != 0) return failed_system(errno);
  refused_.resize(static_cast<std::size_t>(count_));
  std::vector<std::size_t> groups;  // of one record
  std::int32_t number = 0;
  const auto settle = [&] {
    const bool fits =
        std::ranges::all_of(groups, [&](std::size_t group) { return room_[group] > 0; });
    for (const std::size_t group : groups) room_[group] -= fits ? 1 : 0;
    if (!fits) refused_[static_cast<std::size_t>(number - first_)] = true;
    groups.clear();
  };
  while (const Byte* const entry = members_.next()) {
    if (common::ldlong(entry) != number && !groups.empty()) settle();
    number = common::ldlong(entry);
    groups.push_back(static_cast<std::size_t>(common::ldlong(entry + kNumberSize)));
  }
  if (members_.error() != 0) return failed_system(members_.error());
  settle();
  return 1;
}

int IndexMerge::next_old() {
  has_old_ = (cursor_.bt.ends & kAfterLast) == 0;
  return !has_old_ || ++met_ <= dictp->d_nextdata() ? 0 : failed(kCorrupted);
}

int IndexMerge::next_new() {
  int found = 0;
  do {
    found = load_.next(new_);
  } while (found > 0 && refusals_.has(new_.recptr));
  has_new_ = found > 0;
  return found < 0 ? -1 : 0;
}

int IndexMerge::run() {
  if (btposition(cursor_, key_, Edge::kFirst) != 0 || next_old() != 0 || next_new() != 0) return -1;
  while (has_old_ || has_new_) {
    const bool old = has_old_ && (!has_new_ || itcompare(cursor_.treeitem, new_, order_) <= 0);
    if ((old ? take_old() : take_new()) != 0) return -1;
  }
  return loader_.finish(key_.rootnode);
}

int IndexMerge::take_old() {
  const Item& item = cursor_.treeitem;
  const int order = has_last_ ? itcompare(last_, item, order_) : -1;
  const bool behind = order < 0 || (order == 0 && last_.dupnm < item.dupnm);
  if (!behind || item.dupnm < 0 || item.dupnm > greatest_) return failed(kCorrupted);
  last_ = item;
  has_last_ = true;
  group_.clear();
  overfull_ = false;
  if (loader_.add(last_) != 0 || btmove(cursor_, key_, Direction::kNext) != 0) return -1;
  return next_old();
}

int IndexMerge::take_new() {
  const bool same = has_last_ && itcompare(last_, new_, order_) == 0;
  if (!same) {
    group_.clear();
    overfull_ = false;
  }
  if (same && last_.dupnm >= greatest_) {
    if (refuse(new_.recptr) != 0) return -1;
    return next_new();
  }
  new_.dupnm = same ? last_.dupnm + 1 : 0;
  if (loader_.add(new_) != 0) return -1;
  if (greatest_ < kUnlimited) group_.push_back(new_.recptr);
  last_ = new_;
  has_last_ = true;
  return next_new();
}

// No room is left for a record beside those with the same key: all of them are told the refusals.
int IndexMerge::refuse(std::int32_t number) {
  if (!overfull_) {
    overfull_ = true;
    refusals_.begin_group(static_cast<std::int32_t>(group_.size()));
    for (const std::int32_t member : group_) {
      if (refusals_.add_member(member) != 0) return -1;
    }
  }
  return refusals_.add_member(number);
}

int gather_nodes(const keydescr& k, std::vector<bool>& seen, std::vector<std::int32_t>& nodes) {
  const ItemLayout layout{k};
  // Those of upper levels wait here with their levels.
  std::vector<std::pair<std::int32_t, int>> upper{{k.rootnode, kMaxTreeLevels}};
  while (!upper.empty()) {
    const auto [number, below] = upper.back();
    upper.pop_back();
    TreeNode node{number};
    if (!node) return -1;
    const int level = node.page().level();
    if (level >= below || (number != k.rootnode && level != below - 1)) return failed(kCorrupted);
    if (level == kLeafLevel) continue;
    ItemWalk walk{layout, node.area()};
    while (!walk.is_last()) {
      if (!walk.next()) return failed(kCorrupted);
      const std::int32_t child =
          stored_recptr(node.area().data() + walk.end() - kRecordPointerSize);
      const auto at = static_cast<std::size_t>(child);
      if (child < 2 || at >= seen.size() || seen[at]) return failed(kCorrupted);
      seen[at] = true;
      nodes.push_back(child);
      if (level > 1) upper.emplace_back(child, level);
    }
  }
  return 0;
}

}  // namespace isam
