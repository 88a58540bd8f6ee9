#include "common/io.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <string>

namespace common {
namespace {

constexpr std::int64_t kPiece = std::int64_t{16} << 10;

std::int64_t end_of_piece(std::int64_t offset) { return (offset / kPiece + 1) * kPiece; }

int real_open(const char* path, int flags, mode_t permissions) {
  return ::open(path, flags, permissions);
}

int real_fcntl_lock(int fd, int command, struct flock* lock) { return ::fcntl(fd, command, lock); }

int real_link_open(int fd, const char* to) {
  const std::string from = "/proc/self/fd/" + std::to_string(fd);
  return ::linkat(AT_FDCWD, from.c_str(), AT_FDCWD, to, AT_SYMLINK_FOLLOW);
}

int real_clone(int from, int to) { return ::ioctl(to, FICLONE, from); }

// Writes what a first write has left. `put` is the result of that one: bytes written, or -1 with
// errno. A write of nothing means that the disk is full.
int write_rest(int fd, ConstBytes from, std::int64_t offset, ssize_t put) {
  for (;;) {
    if (put == 0) errno = ENOSPC;
    if (put == 0 || (put < 0 && errno != EINTR)) return -1;
    if (put > 0) {
      offset += put;
      from = from.subspan(static_cast<std::size_t>(put));
    }
    if (from.empty()) return 0;
    put = system_calls().pwrite(fd, from.data(), from.size(), offset);
  }
}

off_t real_seek_end(int fd) { return ::lseek(fd, 0, SEEK_END); }

ssize_t real_copy_range(int from, int to, off_t offset, std::size_t count) {
  off_t here = offset;
  return ::copy_file_range(from, &offset, to, &here, count, 0);
}

}  // namespace

constinit SystemCalls system_call_table{.open = real_open,
                                        .close = ::close,
                                        .pread = ::pread,
                                        .pwrite = ::pwrite,
                                        .fcntl_lock = real_fcntl_lock,
                                        .fstat = ::fstat,
                                        .seek_end = real_seek_end,
                                        .fstatfs = ::fstatfs,
                                        .stat = ::stat,
                                        .link = ::link,
                                        .unlink = ::unlink,
                                        .rename = ::rename,
                                        .link_open = real_link_open,
                                        .fsync = ::fsync,
                                        .ftruncate = ::ftruncate,
                                        .clone = real_clone,
                                        .copy_range = real_copy_range,
                                        .fsetxattr = ::fsetxattr};

int open_file(const char* path, int flags, mode_t permissions) {
  int fd;
  do {
    fd = system_calls().open(path, flags | O_CLOEXEC, permissions);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

void close_file(int fd) { system_calls().close(fd); }

bool file_exists(const std::string& path) {
  struct stat status {};
  return system_calls().stat(path.c_str(), &status) == 0;
}

bool name_exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

ssize_t read_at(int fd, Bytes to, std::int64_t offset) {
  std::size_t done = 0;
  while (done < to.size()) {
    errno = 0;
    const ssize_t got = system_calls().pread(fd, to.data() + done, to.size() - done,
                                             offset + static_cast<off_t>(done));
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

int write_in_pieces(int fd, ConstBytes from, std::int64_t offset) {
  while (!from.empty()) {
    const auto left = static_cast<std::int64_t>(from.size());
    const std::int64_t count = std::min(left, end_of_piece(offset) - offset);
    const auto part = static_cast<std::size_t>(count);
    if (write_at(fd, from.first(part), offset) != 0) return -1;
    from = from.subspan(part);
    offset += count;
  }
  return 0;
}

int write_at(int fd, ConstBytes from, std::int64_t offset) {
  if (from.empty()) return 0;
  const ssize_t put = system_calls().pwrite(fd, from.data(), from.size(), offset);
  return put == static_cast<ssize_t>(from.size()) ? 0 : write_rest(fd, from, offset, put);
}

int write_zeros(int fd, std::int64_t from, std::int64_t to) {
  static constexpr Byte kZeros[20480] = {};  // an exclusive open may take sixteen pages at once
  while (from < to) {
    const auto count = std::min(to - from, static_cast<std::int64_t>(sizeof kZeros));
    if (write_at(fd, {kZeros, static_cast<std::size_t>(count)}, from) != 0) return -1;
    from += count;
  }
  return 0;
}

int cut_file(int fd, std::int64_t size) { return system_calls().ftruncate(fd, size); }

bool mapping_shows_writes(int fd) {
  // The last two have no name in the system's header.
  constexpr std::array<std::uint32_t, 10> kKnown{
      EXT4_SUPER_MAGIC,     XFS_SUPER_MAGIC,  BTRFS_SUPER_MAGIC,     TMPFS_MAGIC,
      RAMFS_MAGIC,          F2FS_SUPER_MAGIC, OVERLAYFS_SUPER_MAGIC, REISERFS_SUPER_MAGIC,
      0x3153464A /* JFS */, 0x2FC12FC1 /* ZFS */};
  struct statfs status {};
  if (system_calls().fstatfs(fd, &status) != 0) return false;
  return std::ranges::find(kKnown, static_cast<std::uint32_t>(status.f_type)) != kKnown.end();
}

int find_size(int fd, std::int64_t& size) {
  struct stat status {};
  size = 0;
  if (system_calls().fstat(fd, &status) != 0) return -1;
  if (S_ISREG(status.st_mode)) size = status.st_size;
  if (S_ISBLK(status.st_mode)) size = ::lseek(fd, 0, SEEK_END);
  return size < 0 ? -1 : 0;
}

int find_end(int fd, std::int64_t& size) {
  size = system_calls().seek_end(fd);
  if (size >= 0) return 0;
  if (errno == ESPIPE) return find_size(fd, size);
  size = 0;
  return -1;
}

std::int64_t file_size(int fd) {
  std::int64_t size = 0;
  return find_size(fd, size) == 0 ? size : 0;
}

}  // namespace common
