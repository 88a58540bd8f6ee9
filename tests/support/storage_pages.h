// storage_pages: the variable parts of the records of a pair being built.
#pragma once

#include <algorithm>
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
  void put_variable_part(Byte* trailer) {
    const int most = spec_.max_record_length - spec_.record_length;
    // Most parts are short; some take several pages.
    const int length = static_cast<int>(
        random_(random_(4) == 0 ? static_cast<std::uint32_t>(most) + 1
                                : static_cast<std::uint32_t>(std::min(most, 60)) + 1));
    put2(trailer, length);
    if (length == 0) return;
    Image part(static_cast<std::size_t>(length));
    for (Byte& byte : part) byte = static_cast<Byte>('a' + random_(26));
    const int big = (length - 1) / chunk();
    const auto small_at = part.begin() + static_cast<std::ptrdiff_t>(big) * chunk();
    const Image small(small_at, part.end());
    std::int32_t pointer = put_piece(page_for(static_cast<int>(small.size())), small);
    for (int i = big; i-- > 0;) {
      const auto from = part.begin() + static_cast<std::ptrdiff_t>(i) * chunk();
      const std::int32_t page = new_page();
      big_.push_back(page);
      const std::int32_t next = pointer;
      pointer = put_piece(page, Image(from, from + chunk()));
      put4(nodes_.at(page) + 16, next);
      nodes_.at(page)[20] = 1;
    }
    put4(trailer + 2, pointer);
  }
  // Sorts all pages into the lists of their classes, whose heads the dictionary names.
  void link() {
    const int width = capacity() / 5 + 1;
    std::int32_t heads[5] = {};
    std::vector<std::int32_t> pages = small_;
    pages.insert(pages.end(), big_.begin(), big_.end());
    for (const std::int32_t page : pages) {
      Byte* at = nodes_.at(page);
      const int room = get2(at + 12);
      const int page_class = room < 1 ? 0 : (room - 1) / width;
      at[22] = static_cast<Byte>(page_class);
      if (page_class == 0) continue;
      put4(at + 4, heads[page_class]);
      if (heads[page_class] != 0) put4(nodes_.at(heads[page_class]) + 8, page);
      heads[page_class] = page;
    }
    for (int i = 0; i < 5; ++i) put4(nodes_.at(1) + dict::kStorageHeads + 4 * i, heads[i]);
  }

  // Pages that hold one piece of a long part; pages shared by the ends of parts.
  [[nodiscard]] const std::vector<std::int32_t>& big() const { return big_; }
  [[nodiscard]] const std::vector<std::int32_t>& small() const { return small_; }

 private:
  [[nodiscard]] int capacity() const { return nodes_.stored_size() - 25; }
  [[nodiscard]] int chunk() const { return nodes_.stored_size() - 29; }
  std::int32_t new_page() {
    const std::int32_t page = nodes_.take();
    Byte* at = nodes_.at(page);
    put2(at + 2, 0x7E26);
    put2(at + 12, capacity());
    put2(at + 14, 23);
    at[22] = 255;
    nodes_.set_frame(page, 0, 0x7C, 0);
    return page;
  }
  // Puts a piece into a page and returns its record pointer.
  std::int32_t put_piece(std::int32_t page, const Image& piece) {
    Byte* at = nodes_.at(page);
    const int slot = at[21]++;
    const int end = get2(at + 14);
    std::copy(piece.begin(), piece.end(), at + end);
    Byte* entry = at + nodes_.stored_size() - 6 - 4 * slot;
    put2(entry, static_cast<std::int64_t>(piece.size()));
    put2(entry + 2, end);
    put2(at + 14, end + static_cast<int>(piece.size()));
    put2(at + 12, get2(at + 12) - static_cast<int>(piece.size()) - 4);
    return slot << 24 | page;
  }
  // A shared page with room for so many bytes.
  std::int32_t page_for(int bytes) {
    if (small_.empty() || get2(nodes_.at(small_.back()) + 12) < bytes + 4) {
      small_.push_back(new_page());
    }
    return small_.back();
  }

  const PairSpec& spec_;
  IndexNodes& nodes_;
  Random& random_;
  std::vector<std::int32_t> big_;
  std::vector<std::int32_t> small_;
};

}  // namespace testing_support
