#include "isam/pool/extent.h"

#include <algorithm>
#include <cerrno>

#include "common/io.h"

namespace isam {
namespace {

constexpr int kMostAhead = 15;  // pages

// Zero bytes up to `to`, or the file as it was: 0, or -1 with errno.
int fill(PairFile& file, std::int64_t from, std::int64_t to) {
  if (common::write_zeros(file.fd, from, to) == 0) {
    file.extent.bytes = to;
    return 0;
  }
  const int reason = errno;
  common::cut_file(file.fd, file.extent.bytes);
  errno = reason;
  return -1;
}

// Cuts off what lies behind the first `used` bytes, as far as it was reserved.
void cut(PairFile& file, std::int64_t used) {
  Extent& extent = file.extent;
  const std::int64_t end = std::max(used, extent.kept);
  extent.pages_ahead = 0;
  if (end >= extent.bytes || common::cut_file(file.fd, end) != 0) return;
  extent.bytes = end;
  file.map.cut(end);
}

}  // namespace

void forget_extent() { filep->index.extent = filep->data.extent = {}; }

int lengthen(FileKind kind, std::int64_t from, std::int64_t to) {
  const bool index = kind == FileKind::kIndex;
  PairFile& file = index ? filep->index : filep->data;
  Extent& extent = file.extent;
  if (extent.bytes == 0) {
    if (common::find_end(file.fd, extent.bytes) != 0) {
      return failed_system(errno, Operation::kRead, kind);
    }
    extent.kept = extent.bytes;
  }
  const std::int64_t start = std::max(from, extent.bytes);
  if (start < to) {
    const int page = index ? node_size() : static_cast<int>(kPageSize);
    const std::int64_t ahead = std::int64_t{extent.pages_ahead} * page;
    // What is needed alone, where the disk has no room for more.
    if ((ahead == 0 || fill(file, start, to + ahead) != 0) && fill(file, start, to) != 0) {
      return failed_system(errno, Operation::kWrite, kind);
    }
    extent.pages_ahead = std::min(2 * extent.pages_ahead + 1, kMostAhead);
  }
  // A block that was needed once stays. Of the nodes only those stay that the dictionary tells of.
  if (!index) extent.kept = std::max(extent.kept, to);
  return 0;
}

void cut_unused_room() {
  const std::int64_t nodes_end = std::int64_t{dictp->d_nextnode()} * node_size();
  cut(filep->index, nodes_end);
  cut(filep->data, end_of_slot(dictp->d_nextdata()));
}

}  // namespace isam
