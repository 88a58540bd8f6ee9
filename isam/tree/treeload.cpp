#include "isam/tree/treeload.h"

#include "isam/base/errors.h"
#include "isam/pool/buffers.h"
#include "isam/records/freelists.h"

namespace isam {

std::int32_t PoolNodes::take() {
  taken_.push_back(0);  // its place first: where memory ends, no node has been taken
  const std::int32_t node = taken_.back() = allocrec(FreeList::kNodes);
  if (node < 0) taken_.pop_back();
  return node;
}

int PoolNodes::write(std::int32_t node, Byte level, ConstBytes items) {
  PageHold page = bfgetclr(node);
  if (!page) return -1;
  std::memcpy(page.data() + kUsedBytes, items.data(), items.size());
  page.set_frame(static_cast<int>(items.size()) + kUsedBytes, kTreeNode, level);
  return 0;
}

int TreeLoader::write_node(std::int32_t node, std::size_t level) {
  const Level& from = *levels_[level];
  return nodes_.write(node, static_cast<Byte>(level),
                      {from.area.data(), static_cast<std::size_t>(from.used)});
}

int TreeLoader::close(std::size_t level) {
  const std::int32_t node = nodes_.take();
  if (node < 0 || write_node(node, level) != 0) return -1;
  Item separator = levels_[level]->last;
  separator.recptr = node;
  levels_[level]->used = 0;
  return append(level + 1, separator);
}

int TreeLoader::append(std::size_t level, const Item& item) {
  if (level == levels_.size()) {
    if (level == kMaxTreeLevels) return failed(kTreeTooDeep);
    levels_.push_back(std::make_unique<Level>());
  }
  Level& to = *levels_[level];
  const int limit = item_area_limit(filep->geometry.idxsize);
  Item next = item;
  next.flag = 0;
  if (to.used > 0) {
    itpress(layout_, &to.last, next, Press::kAfter);
    if (to.used + next.totln > limit && close(level) != 0) return -1;
  }
  if (to.used == 0) {
    itpress(layout_, nullptr, next, Press::kFirst);
    if (next.totln > limit) return failed(kCorrupted);
  }
  itpack(layout_, next, to.area, to.used);
  to.used += next.totln;
  to.last = next;
  return 0;
}

int TreeLoader::finish(std::int32_t root) {
  if (levels_.empty()) levels_.push_back(std::make_unique<Level>());
  // Handing a level's last item up may open a level above it.
  std::size_t top = 0;
  for (; top + 1 < levels_.size(); ++top) {
    if (close(top) != 0) return -1;
  }
  return write_node(root, top);
}

}  // namespace isam
