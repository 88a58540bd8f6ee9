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

[[nodiscard]] inline Place bfmapaddr(const Buffer& buffer) {
  const OpenPair& file = *buffer.file;
  if (buffer.block < 0) {
    return {file.datfd, std::int64_t{buffer.block & INT32_MAX} * kPageSize, kPageSize,
            FileKind::kData};
  }
  const int node_bytes = file.idxsize + 1;
  return {file.idxfd, std::int64_t{buffer.block - 1} * node_bytes,
          static_cast<std::size_t>(node_bytes), FileKind::kIndex};
}

[[nodiscard]] inline common::FileMap& map_of(OpenPair& file, FileKind kind) {
  return kind == FileKind::kData ? file.data_map : file.index_map;
}

}  // namespace isam
