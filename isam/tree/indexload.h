// indexload: fills an index from the records of a file: gather, sort, load.
//
// Needs   the current file exclusively held, and a legal key description
// Keeps   memory bounded, whatever the file's size: `ISAMSORTMEM` MiB (1 to 65536, default 64), and
//         in finish() up to a quarter of it more, for the numbers of records left out; sorted runs
//         spill to an unnamed temporary file beside the pair
// Gives   within equal keys ascending record numbers with duplicate numbers 0, 1, 2, ...; a record
//         whose key may not occur again is left out and reported, in ascending record order
// Throws  std::bad_alloc
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/sorter.h"
#include "isam/keys/keys.h"
#include "isam/keys/sortkey.h"
#include "isam/tree/items.h"

namespace isam {

// Of a smaller sort beside that of an index.
[[nodiscard]] common::Sorter::Shape shape_of_sort(std::size_t entry_size, std::size_t key_size);

class IndexLoad {
 public:
  // `sharers`: how many loads exist at the same time; they share the memory.
  explicit IndexLoad(const keydescr& k, int sharers = 1);

  // Takes the key of a record, in ascending order of record numbers. 0, or -1 with iserrno.
  [[nodiscard]] int add(const Byte* record, std::int32_t number);

  // Ends the adding and sorts. After it finish() writes only the tree to the disk, and the numbers
  // of records left out when memory does not hold them. 0, or -1 with iserrno.
  [[nodiscard]] int sort();

  // Both must be set.
  struct Listener {
    std::function<void(std::int32_t record)> left_out;  // could not be indexed
    std::function<void(std::int64_t records)> loaded;   // records done, also those left out
  };

  // For who builds the tree: after sort() the key and record number of the next record in the
  // index's order; 1, 0 behind the last one, or -1 with iserrno. rewind() goes back to the first.
  [[nodiscard]] int next(Item& item);
  [[nodiscard]] int rewind();

  // Sorts, unless that was done, and builds the tree under `root`. 0, or -1 with iserrno; then the
  // tree is not usable.
  [[nodiscard]] int finish(std::int32_t root, const Listener& listener);
  // Whether finish() has met equal keys.
  [[nodiscard]] bool met_equal() const { return met_equal_; }
  // Gives the nodes of the tree back, except for the root. The node that was taken last goes back
  // first, so that the free list is as it was before.
  void give_nodes_back();

 private:
  [[nodiscard]] common::Sorter::Shape shape() const;
  [[nodiscard]] bool same_key(const Byte* a, const Byte* b) const;
  [[nodiscard]] const Byte* key_of(const Byte* entry) const;
  [[nodiscard]] int load(std::int32_t root, const Listener& listener, common::Sorter& rejected);

  keydescr key_;
  KeyOrder order_;
  SortKey sort_key_;
  std::size_t keylen_;
  bool sortable_;  // entries are ordered by their bytes
  bool plain_;     // entries begin with the key itself, not with a sort key
  bool met_equal_ = false;
  bool sorted_ = false;
  std::size_t memory_;
  std::vector<Byte> entry_;
  common::Sorter sorter_;
  std::vector<std::int32_t> taken_;  // nodes
};

}  // namespace isam
