#include "isam/tree/pathahead.h"

#include <algorithm>
#include <cstring>

#include "isam/base/errors.h"
#include "isam/tree/foundplace.h"
#include "isam/tree/rightedge.h"
#include "isam/tree/uppernodes.h"

namespace isam {

std::uint64_t PathAhead::changes_ = 0;

bool PathAhead::is_needed(const keydescr& k, Search mode) {
  if (k.nparts == 0) return false;
  return mode == Search::kInsert ? !right_edges.grows(k) : found_place.root != k.rootnode;
}

WayFinder::WayFinder(PathAhead& way, const Item& item, const keydescr& k, Search mode)
    : way_(way),
      k_(k),
      mode_(mode),
      given_dupnm_(item.dupnm),
      sought_(item),
      descent_(sought_, unused_, k, 0, mode),
      number_(k.rootnode) {
  way.root_ = 0;
}

bool WayFinder::step() {
  if (depth_ == PathAhead::kMostUpper) return false;
  if (upper_ == nullptr) {
    upper_ = find_upper(number_, descent_.layout());
    return upper_ != nullptr;
  }
  PathLevel& level = way_.path_[static_cast<std::size_t>(depth_++)];
  level = {number_, 0, 0, upper_->length()};
  {
    const KeepError keep;
    number_ = descent_.choose(*upper_, level);
  }
  if (number_ < 0) return false;
  if (upper_->is_above_leaves()) {
    arrive();
    return false;
  }
  upper_ = nullptr;
  expect_upper(number_);
  return true;
}

void WayFinder::find(WayFinder* first, WayFinder* second) {
  while (first != nullptr || second != nullptr) {
    if (first != nullptr && !first->step()) first = nullptr;
    if (second != nullptr && !second->step()) second = nullptr;
  }
}

void WayFinder::arrive() {
  bfexpect(number_);
  way_.root_ = k_.rootnode;
  way_.leaf_ = number_;
  way_.depth_ = depth_;
  way_.mode_ = mode_;
  way_.given_dupnm_ = given_dupnm_;
  way_.raised_dupnm_ = sought_.dupnm;
  way_.changes_before_ = PathAhead::changes_;
  std::memcpy(way_.key_.data(), sought_.key, static_cast<std::size_t>(k_.keylen));
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
