// treenode: a page, held and seen as a node of a tree, its frame checked.
#pragma once

#include "isam/base/errors.h"
#include "isam/pool/buffers.h"

namespace isam {

class TreeNode {
 public:
  TreeNode() = default;
  // Empty with iserrno when the node cannot be read, 105 when its used count is impossible or its
  // kind is that of a list or a storage page.
  explicit TreeNode(std::int32_t node) : page_(bfread(node)) {
    if (page_ && (length() < 0 || length() > item_area_limit(filep->geometry.idxsize) ||
                  page_.node_type() >= kIndexFreeNode || page_.node_type() == kStoragePage)) {
      page_.release();
      failed(kCorrupted);
    }
  }

  explicit operator bool() const { return static_cast<bool>(page_); }
  [[nodiscard]] bool is_leaf() const { return page_.level() == kLeafLevel; }
  [[nodiscard]] PageHold& page() { return page_; }

  // The item area: the part in use, and all of it.
  [[nodiscard]] int length() const { return page_.used() - kUsedBytes; }
  [[nodiscard]] ConstBytes area() const {
    return {page_.data() + kUsedBytes, static_cast<std::size_t>(length())};
  }
  [[nodiscard]] Bytes room() {
    return {page_.data() + kUsedBytes,
            static_cast<std::size_t>(item_area_limit(filep->geometry.idxsize))};
  }

  // All of the item area, which is about to be changed.
  [[nodiscard]] Bytes to_change() {
    page_.keep_before();
    return room();
  }
  // The node's items were changed and now take `length` bytes.
  void changed(int length) {
    page_.set_used(length + kUsedBytes);
    page_.modified();
  }

 private:
  PageHold page_;
};

}  // namespace isam
