// listnode: a view of one node of a free list, whose used count is believed only where is_valid()
// says so. The page must be held as long.
#pragma once

#include <cstdint>

#include "isam/base/errors.h"
#include "isam/pool/buffers.h"

namespace checker {

class ListNode {
 public:
  explicit ListNode(const isam::PageHold& page)
      : bytes_(page.bytes()), entry_bytes_(page.used() - isam::kEntriesOffset) {}

  // Whether the used count ends where the entries of such a node may end.
  [[nodiscard]] bool is_valid() const {
    return entry_bytes_ >= 0 &&
           entry_bytes_ <= isam::list_entries_limit(isam::filep->geometry.idxsize);
  }
  // The used count that ends behind the last whole entry of a valid node.
  [[nodiscard]] int used_by_entries() const {
    return isam::kEntriesOffset + entry_bytes_ - entry_bytes_ % isam::kListEntrySize;
  }
  // Visits the whole entries of a valid node.
  template <typename Visit>
  void for_each_entry(Visit visit) const {
    for (int at = 0; at + isam::kListEntrySize <= entry_bytes_; at += isam::kListEntrySize) {
      visit(common::ldlong(bytes_.data() + isam::kEntriesOffset + at));
    }
  }

 private:
  isam::ConstBytes bytes_;
  int entry_bytes_;
};

}  // namespace checker
