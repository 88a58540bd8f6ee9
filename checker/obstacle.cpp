#include "checker/obstacle.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <utility>

#include "checker/temporaryfile.h"
#include "common/io.h"

namespace checker {
namespace {

bool is_mount_point(int fd) {
  struct statx status {};
  return ::statx(fd, "", AT_EMPTY_PATH, STATX_TYPE, &status) == 0 &&
         (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

}  // namespace

std::string real_path(std::string path) {
  constexpr int kMostLinks = 40;
  const std::unique_ptr<char, void (*)(void*)> real{::realpath(path.c_str(), nullptr), std::free};
  if (real) return real.get();
  std::array<char, PATH_MAX> target{};
  for (int links = 0; links < kMostLinks; ++links) {
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length <= 0) break;
    std::string next(target.data(), static_cast<std::size_t>(length));
    // A relative target counts from the link's folder: the path up to its last slash, or nothing.
    if (next.front() != '/') next.insert(0, path, 0, path.rfind('/') + 1);
    path = std::move(next);
  }
  return path;
}

int obstacle(int fd, const std::string& index) {
  struct stat status {};
  struct stat folder {};
  struct rlimit limit {};
  const std::string folder_name = folder_of(index);
  if (common::system_calls().fstat(fd, &status) != 0 ||
      common::system_calls().stat(folder_name.c_str(), &folder) != 0) {
    return errno;
  }
  if (!S_ISREG(status.st_mode)) return ENOTSUP;
  if (status.st_nlink > 1) return EMLINK;  // another name would go on leading to the old file
  if (is_mount_point(fd)) return EBUSY;
  const uid_t user = ::geteuid();
  // With the sticky bit, only root and the owners of the file and the folder may replace the file.
  const bool may_replace = user == 0 || user == status.st_uid || user == folder.st_uid;
  if ((folder.st_mode & S_ISVTX) != 0 && !may_replace) return EPERM;
  if (::faccessat(AT_FDCWD, folder_name.c_str(), W_OK | X_OK, AT_EACCESS) != 0) return errno;
  const bool limited = ::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
  return limited && limit.rlim_cur < static_cast<rlim_t>(status.st_size) ? EFBIG : 0;
}

bool leaves_index_usable(int error) {
  // These errors would hinder a change of the index itself as well: a damaged disk or file system,
  // no memory, a file that its server has lost, a limit on the size of files that is too low.
  return error != EIO && error != ENOMEM && error != ESTALE && error != EUCLEAN && error != EFBIG;
}

}  // namespace checker
