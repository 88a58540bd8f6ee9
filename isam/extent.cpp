#include "isam/extent.h"

#include <algorithm>
#include <cerrno>

#include "common/io.h"

namespace isam {

void forget_extent() { filep->index_bytes = filep->data_bytes = filep->index_bytes_before = 0; }

int lengthen(FileKind kind, std::int64_t from, std::int64_t to) {
  const bool index = kind == FileKind::kIndex;
  const int fd = index ? filep->idxfd : filep->datfd;
  std::int64_t& known = index ? filep->index_bytes : filep->data_bytes;
  if (known == 0) {
    std::int64_t size = 0;
    if (common::find_size(fd, size) != 0) return failed_system(errno, Operation::kRead, kind);
    known = size;
    if (index) filep->index_bytes_before = size;
  }
  if (common::write_zeros(fd, std::max(from, known), to) != 0) {
    const int reason = errno;
    common::cut_file(fd, known);
    return failed_system(reason, Operation::kWrite, kind);
  }
  known = std::max(known, to);
  return 0;
}

void cut_unused_nodes() {
  const std::int64_t used = std::int64_t{dictp->d_nextnode()} * node_size();
  const std::int64_t end = std::max(used, filep->index_bytes_before);
  if (filep->index_bytes == 0 || end >= filep->index_bytes) return;
  if (common::cut_file(filep->idxfd, end) == 0) filep->index_bytes = end;
}

}  // namespace isam
