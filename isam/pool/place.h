// place: where a page of the pool stands in the files of its pair.
#pragma once

#include <cstddef>
#include <cstdint>

#include "isam/base/errors.h"
#include "isam/pool/buffers.h"

namespace isam {

struct Place {
  int fd;
  std::int64_t offset;
  std::size_t length;
  FileKind kind;
};

// The file, and the bytes in it, that a page was read from and is written to. A negative block is
// that of a data file: its number with the top bit set. A node's size is idxsize + 1.
[[nodiscard]] inline Place bfmapaddr(const Buffer& buffer) {
  const OpenPair& file = *buffer.file;
  if (buffer.block < 0) {
    return {file.data.fd, std::int64_t{buffer.block & INT32_MAX} * kPageSize, kPageSize,
            FileKind::kData};
  }
  const int node_bytes = file.geometry.idxsize + 1;
  return {file.index.fd, std::int64_t{buffer.block - 1} * node_bytes,
          static_cast<std::size_t>(node_bytes), FileKind::kIndex};
}

// The mapping through which that file of the pair is read.
[[nodiscard]] inline common::FileMap& map_of(OpenPair& file, FileKind kind) {
  return kind == FileKind::kData ? file.data.map : file.index.map;
}

}  // namespace isam
