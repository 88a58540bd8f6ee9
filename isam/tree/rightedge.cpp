#include "isam/tree/rightedge.h"

#include "isam/base/errors.h"

namespace isam {

RightEdges right_edges;

bool RightEdges::append(Item& item, const keydescr& k) {
  Edge& edge = of(k);
  if (edge.root != k.rootnode || (k.flags & KF_DUPS) != 0) return false;
  // Another file's index with the same root may have shorter keys.
  edge.grows = edge.keylen == k.keylen && itcompare(item, edge.last, KeyOrder{k}) > 0;
  if (!edge.grows || !edge.stamp.stands()) return false;
  const KeepError keep;
  TreeNode leaf{edge.leaf};
  if (!leaf) return false;
  const ItemLayout layout{k};
  item.flag = 0;
  itpress(layout, &edge.last, item, Press::kAfter);
  const int length = leaf.length() + item.totln;
  if (length > static_cast<int>(leaf.room().size())) return false;
  itpack(layout, item, leaf.to_change(), leaf.length());
  leaf.changed(length);
  edge.stamp = PageStamp{leaf.page()};
  edge.last = item;
  return true;
}

void RightEdges::note(const keydescr& k, const PageHold& leaf, const Item& last) {
  if ((k.flags & KF_DUPS) != 0) return;
  Edge& edge = of(k);
  edge.root = k.rootnode;
  edge.leaf = leaf.node();
  edge.stamp = PageStamp{leaf};
  edge.last = last;
  edge.keylen = k.keylen;
  edge.grows = true;
}

}  // namespace isam
