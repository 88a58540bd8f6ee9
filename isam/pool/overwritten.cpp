#include "isam/pool/overwritten.h"

#include "common/io.h"

namespace isam {

void Overwritten::begin() {
  pieces_used_ = bytes_used_ = 0;
  index_size_ = data_size_ = kNotLengthened;
}

void Overwritten::reserve(std::size_t pages) {
  // Two pieces more: the dictionary, and bytes that go past the pool.
  if (pieces_.size() < pages + 2) pieces_.resize(2 * pages + 2);
  const std::size_t most = pages * kMaxNodeSize + sizeof(Dictionary);
  if (bytes_.size() < most) bytes_.resize(2 * most);
}

void Overwritten::note_size(FileKind kind, std::int64_t size) {
  (kind == FileKind::kIndex ? index_size_ : data_size_) = size;
}

void Overwritten::write_back(OpenPair& file) {
  while (pieces_used_ > 0) {
    const auto& [fd, offset, bytes] = pieces_[--pieces_used_];
    static_cast<void>(common::write_at(fd, bytes, offset));
  }
  const auto cut = [](int fd, std::int64_t size, common::FileMap& map) {
    if (size == kNotLengthened) return;
    common::cut_file(fd, size);
    map.forget();
  };
  cut(file.index.fd, index_size_, file.index.map);
  cut(file.data.fd, data_size_, file.data.map);
  file.data.extent.bytes = 0;  // to be asked again
}

}  // namespace isam
