#include "isam/tree/pathahead.h"

#include <algorithm>
#include <cstring>

#include "isam/base/errors.h"
#include "isam/tree/descent.h"
#include "isam/tree/foundplace.h"
#include "isam/tree/rightedge.h"
#include "isam/tree/uppernodes.h"

namespace isam {

std::uint64_t PathAhead::changes_ = 0;

bool PathAhead::is_needed(const keydescr& k, Search mode) {
  if (k.nparts == 0) return false;
  return mode == Search::kInsert ? !right_edges.grows(k) : found_place.root != k.rootnode;
}

void PathAhead::find(const Item& item, const keydescr& k, Search mode) {
  const KeepError keep;
  Item sought = item;
  Item found;
  Descent descent{sought, found, k, 0, mode};
  std::int32_t number = k.rootnode;
  for (int depth = 0; depth < kMostUpper; ++depth) {
    const UpperNode* const upper = find_upper(number, descent.layout());
    if (upper == nullptr) return;
    PathLevel& level = path_[static_cast<std::size_t>(depth)];
    level = {number, 0, 0, upper->length()};
    number = descent.choose(*upper, level);
    if (number < 0) return;
    if (!upper->is_above_leaves()) continue;
    bfexpect(number);
    root_ = k.rootnode;
    leaf_ = number;
    depth_ = depth + 1;
    mode_ = mode;
    given_dupnm_ = item.dupnm;
    raised_dupnm_ = sought.dupnm;
    changes_before_ = changes_;
    std::memcpy(key_.data(), item.key, static_cast<std::size_t>(k.keylen));
    return;
  }
}

std::int32_t PathAhead::take(Item& item, const keydescr& k, Search mode, Position& bt) const {
  const bool is_its_way =
      root_ == k.rootnode && root_ != 0 && mode_ == mode && changes_before_ == changes_ &&
      given_dupnm_ == item.dupnm &&
      std::memcmp(key_.data(), item.key, static_cast<std::size_t>(k.keylen)) == 0;
  if (!is_its_way) return 0;
  item.dupnm = raised_dupnm_;
  std::copy_n(path_.begin(), depth_, bt.path.begin());
  bt.depth = depth_;
  return leaf_;
}

}  // namespace isam
