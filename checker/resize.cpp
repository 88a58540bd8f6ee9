#include "checker/resize.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "checker/dialogue.h"
#include "common/holders.h"
#include "common/io.h"
#include "isam/files.h"
#include "isam/format.h"

namespace checker {
namespace {

constexpr int kCarriedBytes = 512;  // of the key-description node
constexpr mode_t kNewPermissions = 0664;

using KeyNode = std::array<isam::Byte, kCarriedBytes>;

int refuse(Message message) {
  print_line(message);
  return -1;
}

// What of the old index file is carried over.
struct Carried {
  isam::Dictionary dictionary{};
  KeyNode keys{};
};

// Only descriptions that stand in the first 512 bytes of one node, node 2, can be carried over.
int read_carried(int fd, Carried& carried) {
  isam::Dictionary& dictionary = carried.dictionary;
  if (common::read_at(fd, dictionary.raw, 0) != isam::kDictionarySize) {
    return refuse(Message::kResizeOpenFailed);
  }
  if (dictionary.d_maxrecsize() != 0) return refuse(Message::kResizeVariable);
  const int node_size = dictionary.d_idxsize() + 1;
  print_line(Message::kOldNodeSize, {std::int64_t{node_size}});
  const ssize_t got = common::read_at(fd, carried.keys, node_size);
  const int used = got < isam::kUsedBytes ? 0 : common::ldword(carried.keys.data());
  print_line(Message::kKeyNodeSize, {std::int64_t{used}});
  const bool chained = common::ldlong(carried.keys.data() + isam::kLinkOffset) != 0;
  if (used > kCarriedBytes || chained || dictionary.d_keysnode() != 2 ||
      got < std::max(used, isam::kEntriesOffset)) {
    return refuse(Message::kKeyNodeTooBig);
  }
  return 0;
}

void carry_protection(int old_fd, int new_fd) {
  struct stat before {};
  struct stat after {};
  if (common::system_calls().fstat(old_fd, &before) != 0 ||
      common::system_calls().fstat(new_fd, &after) != 0) {
    print_line(Message::kProtectionUnknown);
    return;
  }
  if (before.st_mode != after.st_mode && ::fchmod(new_fd, before.st_mode) != 0) {
    print_line(Message::kProtectionDiffers);
  }
  if ((before.st_uid != after.st_uid || before.st_gid != after.st_gid) &&
      ::fchown(new_fd, before.st_uid, before.st_gid) != 0) {
    print_line(Message::kOwnerDiffers);
  }
}

// The dictionary in node 1, the descriptions in node 2, and their used count again behind them.
int write_carried(int fd, const Carried& carried) {
  constexpr std::int64_t kSecondNode = isam::kPageSize;
  const isam::ConstBytes keys{carried.keys};
  if (common::write_at(fd, carried.dictionary.raw, 0) != 0 ||
      common::write_at(fd, keys, kSecondNode) != 0) {
    return -1;
  }
  return common::write_at(fd, keys.first(isam::kUsedBytes), 2 * kSecondNode);
}

// Puts the new index file in the old one's place in one step: at no moment is there none.
int replace_index(int old_fd, const std::string& index, const Carried& carried) {
  const std::string fresh = index + ".new";
  ::unlink(fresh.c_str());  // of an interrupted run
  const common::FileHold new_index{
      common::open_file(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL, kNewPermissions)};
  if (!new_index) return refuse(Message::kResizeCreateFailed);
  carry_protection(old_fd, new_index.get());
  if (write_carried(new_index.get(), carried) != 0) {
    ::unlink(fresh.c_str());
    return refuse(Message::kResizeCreateFailed);
  }
  if (::rename(fresh.c_str(), index.c_str()) == 0) return 0;
  ::unlink(fresh.c_str());
  return refuse(Message::kResizeRemoveFailed);
}

}  // namespace

int resize(const std::string& name) {
  const std::string index = isam::mkidxname(name);
  const std::string kept = name + ".IDX";
  if (::link(index.c_str(), kept.c_str()) != 0) return refuse(Message::kResizeLinkFailed);
  const common::FileHold old_index{common::open_file(kept.c_str(), O_RDONLY)};
  if (!old_index) return refuse(Message::kResizeOpenFailed);
  Carried carried;
  if (read_carried(old_index.get(), carried) != 0) return -1;
  carried.dictionary.set_d_idxsize(isam::kPageSize - 1);
  return replace_index(old_index.get(), index, carried);
}

}  // namespace checker
