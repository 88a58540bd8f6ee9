#include "isam/records/unfinished.h"

#include <algorithm>
#include <cerrno>

#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/pool/buffers.h"

namespace isam {

int drop_unfinished(std::int32_t node) {
  {
    const PageHold page = bfread(node);
    if (!page) return -1;
    const Bytes words = page.bytes().subspan(kEntriesOffset, sizeof kUnfinished);
    if (page.node_type() != kIndexFreeNode || page.used() != kEntriesOffset ||
        !std::ranges::equal(kUnfinished, words)) {
      return 0;
    }
  }
  const std::int64_t end = std::int64_t{node - 1} * node_size();
  if (common::cut_file(filep->index.fd, end) != 0) {
    return failed_system(errno, Operation::kWrite, FileKind::kIndex);
  }
  filep->index.map.cut(end);
  filep->index.extent = {};
  return 1;
}

}  // namespace isam
