#include "common/io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace common {
namespace {

int real_open(const char* path, int flags, mode_t permissions) {
  return ::open(path, flags, permissions);
}

int real_fcntl_lock(int fd, int command, struct flock* lock) { return ::fcntl(fd, command, lock); }

}  // namespace

SystemCalls& system_calls() {
  static SystemCalls calls{real_open, ::close, ::pread, ::pwrite, real_fcntl_lock,
                           ::fstat,   ::stat,  ::link,  ::unlink};
  return calls;
}

int open_file(const char* path, int flags, mode_t permissions) {
  int fd;
  do {
    fd = system_calls().open(path, flags | O_CLOEXEC, permissions);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

void close_file(int fd) { system_calls().close(fd); }

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

int write_at(int fd, ConstBytes from, std::int64_t offset) {
  std::size_t done = 0;
  while (done < from.size()) {
    const ssize_t put = system_calls().pwrite(fd, from.data() + done, from.size() - done,
                                              offset + static_cast<off_t>(done));
    if (put < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (put == 0) {
      errno = ENOSPC;
      return -1;
    }
    done += static_cast<std::size_t>(put);
  }
  return 0;
}

int cut_file(int fd, std::int64_t size) { return ::ftruncate(fd, size); }

std::int64_t file_size(int fd) {
  struct stat status {};
  if (system_calls().fstat(fd, &status) != 0) return 0;
  if (S_ISREG(status.st_mode)) return status.st_size;
  if (S_ISBLK(status.st_mode)) {
    const off_t end = ::lseek(fd, 0, SEEK_END);
    return end < 0 ? 0 : end;
  }
  return 0;
}

}  // namespace common
