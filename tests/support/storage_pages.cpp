#include "tests/support/storage_pages.h"

#include <algorithm>

namespace testing_support {

std::int32_t StoragePages::new_page() {
  const std::int32_t page = nodes_.take();
  Byte* at = nodes_.at(page);
  put2(at + 2, 0x7E26);
  put2(at + 12, capacity());
  put2(at + 14, 23);
  at[22] = 255;
  nodes_.set_frame(page, 0, 0x7C, 0);
  return page;
}

std::int32_t StoragePages::put_piece(std::int32_t page, const Image& piece) {
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

void StoragePages::put_variable_part(Byte* trailer) {
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

std::int32_t StoragePages::page_for(int bytes) {
  if (small_.empty() || get2(nodes_.at(small_.back()) + 12) < bytes + 4) {
    small_.push_back(new_page());
  }
  return small_.back();
}

void StoragePages::link() {
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

}  // namespace testing_support
