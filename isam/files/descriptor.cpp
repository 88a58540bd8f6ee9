#include "isam/files/descriptor.h"

#include <fcntl.h>

#include <cerrno>

#include "common/io.h"
#include "isam/files/files.h"

namespace isam {
namespace {

constexpr mode_t kPermissions = 0664;

bool writing_is_refused(std::int32_t error) {
  return error == EACCES || error == EPERM || error == EROFS;
}

}  // namespace

common::FileHold open_with_retry(const std::string& path, int flags, mode_t permissions) {
  common::FileHold fd{common::open_file(path.c_str(), flags, permissions)};
  if (!fd && errno == EMFILE) {
    vclose();
    fd = common::FileHold{common::open_file(path.c_str(), flags, permissions)};
  }
  return fd;
}

common::FileHold open_of_pair(const std::string& path, int flags, FileKind kind) {
  common::FileHold fd = open_with_retry(path, flags);
  if (!fd) failed_system(errno, Operation::kOpen, kind);
  return fd;
}

Opened open_to_use(const std::string& path, FileKind kind, bool reading_is_enough) {
  common::FileHold fd = open_of_pair(path, O_RDWR, kind);
  if (fd || !reading_is_enough || !writing_is_refused(iserrno)) return {std::move(fd), O_RDWR};
  clear_errors();
  return {open_of_pair(path, O_RDONLY, kind), O_RDONLY};
}

int makefile(const std::string& path, FileKind kind) {
  const common::FileHold fd = open_with_retry(path, O_RDWR | O_CREAT | O_EXCL, kPermissions);
  return fd ? 0 : failed_system(errno, Operation::kCreate, kind);
}

}  // namespace isam
