// storage_pages: the variable parts of the records of a pair being built.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/support/index_nodes.h"
#include "tests/support/pair_builder.h"

namespace testing_support {

class StoragePages {
 public:
  StoragePages(const PairSpec& spec, IndexNodes& nodes, Random& random)
      : spec_(spec), nodes_(nodes), random_(random) {}

  // Makes a variable part of some length and fills in the trailer of the slot it belongs to.
  void put_variable_part(Byte* trailer);
  // Sorts all pages into the lists of their classes, whose heads the dictionary names.
  void link();

  // Pages that hold one piece of a long part; pages shared by the ends of parts.
  [[nodiscard]] const std::vector<std::int32_t>& big() const { return big_; }
  [[nodiscard]] const std::vector<std::int32_t>& small() const { return small_; }

 private:
  [[nodiscard]] int capacity() const { return nodes_.stored_size() - 25; }
  [[nodiscard]] int chunk() const { return nodes_.stored_size() - 29; }
  std::int32_t new_page();
  // Puts a piece into a page and returns its record pointer.
  std::int32_t put_piece(std::int32_t page, const Image& piece);
  // A shared page with room for so many bytes.
  std::int32_t page_for(int bytes);

  const PairSpec& spec_;
  IndexNodes& nodes_;
  Random& random_;
  std::vector<std::int32_t> big_;
  std::vector<std::int32_t> small_;
};

}  // namespace testing_support
