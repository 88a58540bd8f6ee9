// overwritten: the bytes that a commit writes over, so that a commit that fails can be taken back.
//
// Needs   each place is kept before it is written, and a file's size before it is lengthened
// Keeps   O1 write_back() gives both files the bytes and the sizes that they had at begin(), as far
//            as they can be written
// Never   allocates after reserve(): a commit under way does not fail for want of memory
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "isam/pool/place.h"

namespace isam {

class Overwritten {
 public:
  // A commit begins: what an earlier one kept is forgotten.
  void begin();
  // Takes memory for what a commit of so many pages may keep: the bytes of these pages and of the
  // dictionary, and room to note bytes that go past the pool.
  void reserve(std::size_t pages);
  // The file has this size and is about to be lengthened.
  void note_size(FileKind kind, std::int64_t size);
  // Keeps the bytes that stand at a place: 0, or -1 with iserrno.
  int keep(OpenPair& file, const Place& place);
  // The same for bytes that the caller has at hand. They are not copied: they must stay until the
  // commit is over.
  void keep_read(int fd, std::int64_t offset, ConstBytes bytes);
  // Takes back what was written since begin(). What fails here is not told.
  void write_back(OpenPair& file);

 private:
  static constexpr std::int64_t kNotLengthened = INT64_MAX;

  struct Piece {
    int fd;
    std::int64_t offset;
    ConstBytes bytes;
  };

  std::vector<Piece> pieces_;  // as many as reserve() took room for; the first pieces_used_ count
  std::size_t pieces_used_ = 0;
  std::vector<Byte> bytes_;  // copies that keep() made; the first bytes_used_ count
  std::size_t bytes_used_ = 0;
  std::int64_t index_size_ = kNotLengthened;
  std::int64_t data_size_ = kNotLengthened;
};

// Bytes past the end of a file as it was need not be kept: they go when the file is cut.
inline int Overwritten::keep(OpenPair& file, const Place& place) {
  const std::int64_t size = place.kind == FileKind::kIndex ? index_size_ : data_size_;
  const std::int64_t from_place_on = size - place.offset;  // bytes of the file as it was
  if (from_place_on <= 0) return 0;
  const std::size_t length = std::min(place.length, static_cast<std::size_t>(from_place_on));
  Byte* const to = bytes_.data() + bytes_used_;
  const ssize_t got = map_of(file, place.kind).read(place.fd, {to, length}, place.offset);
  if (got < 0) return failed_system(errno, Operation::kRead, place.kind);
  keep_read(place.fd, place.offset, {to, static_cast<std::size_t>(got)});
  bytes_used_ += length;
  return 0;
}

inline void Overwritten::keep_read(int fd, std::int64_t offset, ConstBytes bytes) {
  pieces_[pieces_used_++] = {fd, offset, bytes};
}

}  // namespace isam
