#include "zentra/writekeys.h"

#include <algorithm>
#include <cstdint>

#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/calls/filelocale.h"
#include "isam/keys/keys.h"
#include "isam/pool/nodechain.h"
#include "locale/collation.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

// Nodes behind all that the index file holds.
class FreshNodes {
 public:
  FreshNodes() : last_(common::file_size(filep->index.fd) / isam::node_size()) {}

  // The next one, zeroed, with this frame; empty with iserrno.
  [[nodiscard]] isam::PageHold take(int used, isam::Byte type, isam::Byte level) {
    if (last_ >= INT32_MAX - 1) {
      isam::failed(isam::kCorrupted);
      return {};
    }
    isam::PageHold page = isam::bfgetclr(static_cast<std::int32_t>(++last_));
    if (page) page.set_frame(used, type, level);
    return page;
  }
  [[nodiscard]] std::int32_t last() const { return static_cast<std::int32_t>(last_); }

 private:
  std::int64_t last_;
};

int name_locale(const std::vector<keydescr>& keys) {
  if (dictp->d_collate() || std::ranges::none_of(keys, isam::kynchar)) return 0;
  if (locale::chkulxinit() != 0) return isam::failed(isam::kLocaleInvalid);
  return isam::name_collation();
}

}  // namespace

int write_keys(const std::vector<keydescr>& keys) {
  filep->geometry.idxsize = dictp->d_idxsize();
  FreshNodes nodes;
  std::int32_t page_node = 0;  // where the last description went
  for (keydescr k : keys) {
    k.rootnode = 0;
    if (k.nparts > 0) {
      const isam::PageHold root = nodes.take(isam::kUsedBytes, isam::kTreeNode, isam::kLeafLevel);
      if (!root) return -1;
      k.rootnode = root.node();
    }
    const int size = isam::stored_key_size(k);
    isam::PageHold page;
    if (page_node != 0) {
      page = isam::bfread(page_node);
      if (!page) return -1;
    }
    if (!page || page.used() + size >= isam::node_type_offset(filep->geometry.idxsize)) {
      page.release();
      page = nodes.take(isam::kEntriesOffset, isam::kServiceNode, isam::kKeyLevel);
      if (!page) return -1;
      const std::int32_t before = page_node;
      page_node = page.node();
      if (before == 0) {
        dictp->set_d_keysnode(page_node);
      } else {
        page.release();
        const isam::PageHold previous = isam::bfread(before);
        if (!previous) return -1;
        isam::ListLink{previous}.set(page_node);
        previous.modified();
      }
      if (!page) page = isam::bfread(page_node);
      if (!page) return -1;
    }
    isam::kypack(k, page.data() + page.used());
    page.set_used(page.used() + size);
    page.modified();
  }
  dictp->set_d_nkeys(static_cast<int>(keys.size()));
  dictp->set_d_nextnode(nodes.last());
  isam::dictmodify();
  if (name_locale(keys) != 0) return -1;
  // Where the file ended before the checks, they would take these nodes for missing.
  isam::bfflush(*filep);
  return iserrno != 0 || filep->unwritten.failed.error != 0 ? -1 : 0;
}

}  // namespace zentra
