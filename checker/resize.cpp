#include "checker/resize.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

#include "checker/checks.h"
#include "common/holders.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/base/format.h"
#include "isam/files/files.h"
#include "isam/pool/nodechain.h"

namespace checker {
namespace {

constexpr int kCarriedBytes = 512;  // the first ones of the key-description node
constexpr mode_t kNewPermissions = 0664;
constexpr std::int32_t kNewNodes = 2;  // whole nodes of the new index file

using KeyNode = std::array<isam::Byte, kCarriedBytes>;

int refuse(Check& check, Code code, const Numbers& numbers = {}) {
  check.found(code, numbers);
  return -1;
}

// A read that failed, or met the end of the file too early.
int refuse_read(ssize_t got) {
  return got < 0 ? isam::failed_system(errno, isam::Operation::kRead, isam::FileKind::kIndex)
                 : isam::failed(isam::kCorrupted);
}

// What of the old index file is carried over.
struct Carried {
  isam::Dictionary dictionary{};
  KeyNode keys{};
};

// Only descriptions that stand in the first 512 bytes of one node, node 2, can be carried over.
int read_carried(Check& check, int fd, Carried& carried) {
  isam::Dictionary& dictionary = carried.dictionary;
  if (const ssize_t got = common::read_at(fd, dictionary.raw, 0); got != isam::kDictionarySize) {
    return refuse_read(got);
  }
  if (dictionary.d_maxrecsize() != 0) return refuse(check, Code::kResizeVariable);
  const int node_size = dictionary.d_idxsize() + 1;
  check.listener.fact(Fact::kOldNodeSize, node_size);
  const ssize_t got = common::read_at(fd, carried.keys, node_size);
  const int used = got < isam::kUsedBytes ? 0 : common::ldword(carried.keys.data());
  check.listener.fact(Fact::kKeyNodeSize, used);
  const bool chained = !isam::ListLink{carried.keys.data()}.is_last();
  if (used > kCarriedBytes || chained || dictionary.d_keysnode() != 2) {
    return refuse(check, Code::kResizeKeyNodeTooBig, {.found = used});
  }
  return got < std::max(used, isam::kEntriesOffset) ? refuse_read(got) : 0;
}

// The beginning of the node that names the audit trail: used count and name. Empty without such a
// node, or when it cannot be read.
std::vector<isam::Byte> read_audit_node(int fd, const isam::Dictionary& dictionary) {
  constexpr int kNameEnd = 4 + 128;  // behind the longest name of a trail
  if (dictionary.d_auditnode() <= kNewNodes) return {};
  std::vector<isam::Byte> node(
      static_cast<std::size_t>(std::min(kNameEnd, isam::node_type_offset(dictionary.d_idxsize()))));
  const std::int64_t node_size = dictionary.d_idxsize() + 1;
  const std::int64_t offset = (dictionary.d_auditnode() - 1) * node_size;
  if (common::read_at(fd, node, offset) != std::ssize(node)) node.clear();
  return node;
}

void carry_protection(Check& check, int old_fd, int new_fd) {
  struct stat before {};
  struct stat after {};
  if (common::system_calls().fstat(old_fd, &before) != 0 ||
      common::system_calls().fstat(new_fd, &after) != 0) {
    check.found(Code::kResizeProtectionUnknown);
    return;
  }
  if (before.st_mode != after.st_mode && ::fchmod(new_fd, before.st_mode) != 0) {
    check.found(Code::kResizeProtectionDiffers);
  }
  if ((before.st_uid != after.st_uid || before.st_gid != after.st_gid) &&
      ::fchown(new_fd, before.st_uid, before.st_gid) != 0) {
    check.found(Code::kResizeOwnerDiffers);
  }
}

// Writes the dictionary into node 1, the descriptions into node 2 and their used count again where
// node 3 begins: nobody reads it there, but so has every version ended the file.
int write_carried(int fd, const Carried& carried) {
  constexpr std::int64_t kSecondNode = isam::kPageSize;
  const isam::ConstBytes keys{carried.keys};
  if (common::write_at(fd, carried.dictionary.raw, 0) != 0 ||
      common::write_at(fd, keys, kSecondNode) != 0) {
    return -1;
  }
  return common::write_at(fd, keys.first(isam::kUsedBytes), 2 * kSecondNode);
}

struct FreshFile {
  std::string name;
  common::FileHold fd;
};

// A file under a name that none had; without a descriptor, and with errno, when none can be made.
FreshFile make_fresh_file(const std::string& index) {
  constexpr int kTries = 1000;
  FreshFile fresh;
  for (int n = 0; n < kTries; ++n) {
    fresh.name = index + ".new" + std::to_string(::getpid()) + '.' + std::to_string(n);
    fresh.fd = common::FileHold{
        common::open_file(fresh.name.c_str(), O_WRONLY | O_CREAT | O_EXCL, kNewPermissions)};
    if (fresh.fd || errno != EEXIST) break;
  }
  return fresh;
}

// Puts the new index file in the old one's place in one step: at no moment is there none.
int replace_index(Check& check, int old_fd, const std::string& index, const Carried& carried) {
  const FreshFile fresh = make_fresh_file(index);
  if (!fresh.fd) return refuse(check, Code::kResizeNotCreated);
  carry_protection(check, old_fd, fresh.fd.get());
  const bool written = write_carried(fresh.fd.get(), carried) == 0;
  if (written && ::rename(fresh.name.c_str(), index.c_str()) == 0) return 0;
  ::unlink(fresh.name.c_str());
  return refuse(check, written ? Code::kResizeNotRemoved : Code::kResizeNotCreated);
}

std::string second_name(const std::string& name) { return name + ".IDX"; }

bool has_file(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

}  // namespace

bool can_be_kept(Check& check, const std::string& name) {
  if (has_file(isam::mkidxname(name)) && !has_file(second_name(name))) return true;
  refuse(check, Code::kResizeNotLinked);
  return false;
}

int resize(Check& check, const std::string& name) {
  const std::string index = isam::mkidxname(name);
  const std::string kept = second_name(name);
  if (::link(index.c_str(), kept.c_str()) != 0) return refuse(check, Code::kResizeNotLinked);
  const common::FileHold old_index{common::open_file(kept.c_str(), O_RDONLY)};
  if (!old_index) return refuse(check, Code::kResizeNotOpened);
  Carried carried;
  if (read_carried(check, old_index.get(), carried) != 0) return -1;
  check.audit_node = read_audit_node(old_index.get(), carried.dictionary);
  carried.dictionary.set_d_idxsize(isam::kPageSize - 1);
  return replace_index(check, old_index.get(), index, carried);
}

void write_audit_node(Check& check) {
  const std::vector<isam::Byte> carried = std::exchange(check.audit_node, {});
  const std::int32_t node = isam::dictp->d_auditnode();
  const std::int32_t last = std::min(kNewNodes + kKeptPastEnd, isam::dictp->d_nextnode());
  // makifree() clears a number too far behind the file's end; without it that may still stand.
  if (carried.empty() || node <= kNewNodes || node > last) return;
  isam::PageHold page = isam::bfgetclr(node);
  if (!page) return;
  common::copy_bytes(carried, page.data());
  page.set_used(std::min<int>(common::ldword(carried.data()), isam::kPageSize));
}

}  // namespace checker
