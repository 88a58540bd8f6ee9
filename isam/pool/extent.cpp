#include "isam/pool/extent.h"

#include <algorithm>
#include <cerrno>

#include "common/io.h"

namespace isam {
namespace {

constexpr int kMostAhead = 15;

// Zero bytes up to `to`, or the file as it was: 0, or -1 with errno.
int fill(int fd, Extent& extent, std::int64_t from, std::int64_t to) {
  if (common::write_zeros(fd, from, to) == 0) {
    extent.bytes = to;
    return 0;
  }
  const int reason = errno;
  common::cut_file(fd, extent.bytes);
  errno = reason;
  return -1;
}

void cut(int fd, Extent& extent, common::FileMap& map, std::int64_t used) {
  const std::int64_t end = std::max(used, extent.kept);
  extent.pages_ahead = 0;
  if (end >= extent.bytes || common::cut_file(fd, end) != 0) return;
  extent.bytes = end;
  map.cut(end);
}

}  // namespace

void forget_extent() { filep->index_extent = filep->data_extent = {}; }

int lengthen(FileKind kind, std::int64_t from, std::int64_t to) {
  const bool index = kind == FileKind::kIndex;
  const int fd = index ? filep->idxfd : filep->datfd;
  Extent& extent = index ? filep->index_extent : filep->data_extent;
  if (extent.bytes == 0) {
    if (common::find_size(fd, extent.bytes) != 0) {
      return failed_system(errno, Operation::kRead, kind);
    }
    extent.kept = extent.bytes;
  }
  const std::int64_t start = std::max(from, extent.bytes);
  if (start < to) {
    const int page = index ? node_size() : static_cast<int>(kPageSize);
    const std::int64_t ahead = std::int64_t{extent.pages_ahead} * page;
    if ((ahead == 0 || fill(fd, extent, start, to + ahead) != 0) &&
        fill(fd, extent, start, to) != 0) {
      return failed_system(errno, Operation::kWrite, kind);
    }
    extent.pages_ahead = std::min(2 * extent.pages_ahead + 1, kMostAhead);
  }
  // Nodes in use are told by the dictionary.
  if (!index) extent.kept = std::max(extent.kept, to);
  return 0;
}

void cut_unused_room() {
  const std::int64_t nodes_end = std::int64_t{dictp->d_nextnode()} * node_size();
  cut(filep->idxfd, filep->index_extent, filep->index_map, nodes_end);
  cut(filep->datfd, filep->data_extent, filep->data_map, end_of_slot(dictp->d_nextdata()));
}

}  // namespace isam
