#include "zentra/repair/seen.h"

#include <sys/stat.h>

#include "common/io.h"
#include "isam/base/current.h"

namespace zentra {
namespace {

std::optional<Seen::File> file_seen(int fd) {
  struct stat status {};
  if (common::system_calls().fstat(fd, &status) != 0) return {};
  return Seen::File{status.st_dev, status.st_ino, status.st_size, status.st_mtim};
}

}  // namespace

bool operator==(const Seen::File& a, const Seen::File& b) {
  return a.device == b.device && a.inode == b.inode && a.size == b.size &&
         a.changed.tv_sec == b.changed.tv_sec && a.changed.tv_nsec == b.changed.tv_nsec;
}

std::optional<Seen> see(int index_fd) {
  const auto index = file_seen(index_fd);
  const auto data = file_seen(isam::filep->data.fd);
  if (!index || !data) return {};
  return Seen{*index, *data, isam::dictp->d_modcount()};
}

}  // namespace zentra
