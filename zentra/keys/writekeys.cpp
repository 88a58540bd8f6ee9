#include "zentra/keys/writekeys.h"

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
    if (last_ >= INT32_MAX - 2) {
      isam::failed(isam::kCorrupted);
      return {};
    }
    if (++last_ == dictp->d_auditnode()) ++last_;  // of a file that has been cut
    isam::PageHold page = isam::bfgetclr(static_cast<std::int32_t>(last_));
    if (page) page.set_frame(used, type, level);
    return page;
  }
  [[nodiscard]] std::int32_t last() const { return static_cast<std::int32_t>(last_); }

 private:
  std::int64_t last_;
};

// Writes descriptions one behind the other, into as many nodes as they take.
class DescriptionWriter {
 public:
  explicit DescriptionWriter(FreshNodes& nodes) : nodes_(nodes) {}

  // 0, or -1 with iserrno.
  [[nodiscard]] int write(const keydescr& k) {
    const int size = isam::stored_key_size(k);
    const bool has_room = used_ + size < isam::node_type_offset(filep->geometry.idxsize);
    if ((node_ == 0 || !has_room) && begin_node() != 0) return -1;
    isam::PageHold page = isam::bfread(node_);
    if (!page) return -1;
    isam::kypack(k, page.data() + used_);
    used_ += size;
    page.set_used(used_);
    page.modified();
    return 0;
  }

 private:
  // The dictionary, or the node before it, names the new one.
  [[nodiscard]] int begin_node() {
    const std::int32_t before = node_;
    {
      const isam::PageHold page =
          nodes_.take(isam::kEntriesOffset, isam::kServiceNode, isam::kKeyLevel);
      if (!page) return -1;
      node_ = page.node();
      used_ = isam::kEntriesOffset;
    }
    if (before == 0) {
      dictp->set_d_keysnode(node_);
      return 0;
    }
    const isam::PageHold previous = isam::bfread(before);
    if (!previous) return -1;
    isam::ListLink{previous}.set(node_);
    previous.modified();
    return 0;
  }

  FreshNodes& nodes_;
  std::int32_t node_ = 0;  // where the last description went
  int used_ = 0;           // bytes of it
};

// Gives the description an empty tree: 0, or -1 with iserrno.
int make_root(FreshNodes& nodes, keydescr& k) {
  k.rootnode = 0;
  if (k.nparts == 0) return 0;
  const isam::PageHold root = nodes.take(isam::kUsedBytes, isam::kTreeNode, isam::kLeafLevel);
  if (!root) return -1;
  k.rootnode = root.node();
  return 0;
}

int name_locale(const std::vector<keydescr>& keys) {
  if (dictp->d_collate() || std::ranges::none_of(keys, isam::kynchar)) return 0;
  if (locale::chkulxinit() != 0) return isam::failed(isam::kLocaleInvalid);
  return isam::name_collation();
}

}  // namespace

void mark_key_nodes() {
  isam::NodeChain<isam::AnyNode> chain{dictp->d_keysnode(), {}};
  while (isam::PageHold page = chain.read()) {
    page.set_frame(page.used(), isam::kServiceNode, isam::kKeyLevel);
    page.modified();
    chain.follow(page);
  }
  isam::clear_errors();  // the check of the copy finds what could not be mended
}

int write_keys(const std::vector<keydescr>& keys) {
  filep->geometry.idxsize = dictp->d_idxsize();
  FreshNodes nodes;
  DescriptionWriter writer{nodes};
  for (keydescr k : keys) {
    if (make_root(nodes, k) != 0 || writer.write(k) != 0) return -1;
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
