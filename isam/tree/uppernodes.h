// uppernodes: upper nodes ready to be searched. They are on the way of every search and change
// seldom, so their keys are put together once: items of one size, as in a node without compression.
//
// Gives   find_upper(), note_upper(), expect_upper(); for insertions kept_upper(), insert()
// Keeps   U1 what is kept of a node counts while the pool has its page as it was, and the file too
//            where another process has changed something (PageStamp)
//         U2 a node changed otherwise than by insert() is kept again when it is searched for the
//            second time, and another one takes its place only after many misses, so that nodes
//            serve before they go
#pragma once

#include <cstdint>
#include <memory>

#include "isam/pool/buffers.h"
#include "isam/tree/items.h"
#include "isam/tree/treenode.h"

namespace isam {

class alignas(64) UpperNode {
 public:
  // The items, as a node without compression has them, and their number. Whether an item's record
  // pointer tells that the next one repeats its key means nothing here.
  [[nodiscard]] const Byte* items() const { return heads_.get() + room_ * kHeadSize; }
  [[nodiscard]] int count() const { return static_cast<int>(count_); }
  // The first kHeadSize bytes of each, one behind the other: most of a search takes place in these.
  static constexpr std::size_t kHeadSize = 8;
  [[nodiscard]] const Byte* heads() const { return heads_.get(); }
  // Where an item begins in the node's item area (behind the last one: the area's end), and the
  // node that it names.
  [[nodiscard]] int start_of(int item) const {
    return places_[static_cast<std::size_t>(item)].start;
  }
  [[nodiscard]] std::int32_t child_of(int item) const {
    return places_[static_cast<std::size_t>(item)].child;
  }
  // How long the area is.
  [[nodiscard]] int length() const { return length_; }
  // Whether its children are leaves, which are not kept; where the file is damaged they may not be.
  [[nodiscard]] bool is_above_leaves() const { return is_above_leaves_; }

  // The node, kept as it was before, has got `item` at `start` of its area and the one behind it
  // as `next`. Where there is no room for one more, it is no longer kept.
  void insert(TreeNode& node, const ItemLayout& layout, int start, const Item& item,
              const Item& next);

 private:
  friend const UpperNode* find_upper(std::int32_t number, const ItemLayout& layout);
  friend UpperNode* kept_upper(std::int32_t number, const PageHold& page, const ItemLayout& layout);
  friend void note_upper(std::int32_t number, TreeNode& node, const ItemLayout& layout);

  // Of an item; together, for a search wants both.
  struct ItemPlace {
    std::int32_t child;
    std::uint16_t start;
  };

  bool read(ConstBytes area, const ItemLayout& layout);
  bool insert(ConstBytes area, const ItemLayout& layout, int start, const Item& item,
              const Item& next);

  PageStamp stamp_;  // of no page: nothing is kept
  std::int32_t number_ = 0;
  std::int32_t misses_ = 0;  // since it is kept
  std::uint32_t shape_ = 0;  // of the layout
  int length_ = 0;
  bool is_above_leaves_ = false;
  std::uint16_t count_ = 0;
  std::uint16_t room_ = 0;               // for so many items
  std::unique_ptr<Byte[]> heads_;        // and behind the room for them the items
  std::unique_ptr<ItemPlace[]> places_;  // and one for the area's end
};

// Fetches into the processor's caches what find_upper() looks at first.
void expect_upper(std::int32_t number);

// A node of the current file that is kept; null when it is not, or no longer as it was.
[[nodiscard]] const UpperNode* find_upper(std::int32_t number, const ItemLayout& layout);

// A node of the current file that is held and kept as it is now, or null.
[[nodiscard]] UpperNode* kept_upper(std::int32_t number, const PageHold& page,
                                    const ItemLayout& layout);

// Keeps a sound upper node of the current file, unless it is seldom searched or its items are too
// many.
void note_upper(std::int32_t number, TreeNode& node, const ItemLayout& layout);

}  // namespace isam
