#include "tests/support/between.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "common/io.h"

namespace testing_support {
namespace {

using common::SystemCalls;

std::function<int(SystemCall&)>& between() {
  static std::function<int(SystemCall&)> asked;
  return asked;
}
const SystemCalls& real() {
  static const SystemCalls calls = common::system_calls();
  return calls;
}

// Whether it may be done; else errno is set.
bool may(SystemCall& call) {
  const int before = errno;
  const int error = between()(call);
  errno = error != 0 ? error : before;
  return error == 0;
}
bool may(SystemCall&& call) { return may(call); }

}  // namespace

std::string SystemCall::name() const {
  std::error_code none;
  if (fd < 0) return path;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
}
bool SystemCall::grows() const { return at + static_cast<off_t>(count) > common::file_size(fd); }
bool SystemCall::appends() const { return at >= common::file_size(fd); }

void stand_between(std::function<int(SystemCall&)> asked) {
  using Call = SystemCall;
  static_cast<void>(real());
  between() = std::move(asked);
  SystemCalls& calls = common::system_calls();
  calls.open = [](const char* path, int flags, mode_t permissions) {
    const bool nameless = (flags & O_TMPFILE) == O_TMPFILE;
    Call call{.kind = nameless ? Call::kNameless : Call::kOpen, .path = path, .flags = flags};
    return may(call) ? real().open(path, flags, permissions) : -1;
  };
  calls.pread = [](int fd, void* to, std::size_t count, off_t at) {
    Call call{.kind = Call::kRead, .fd = fd, .count = count, .at = at};
    return may(call) ? real().pread(fd, to, call.count, at) : -1;
  };
  calls.pwrite = [](int fd, const void* from, std::size_t count, off_t at) {
    Call call{.kind = Call::kWrite, .fd = fd, .count = count, .at = at};
    return may(call) ? real().pwrite(fd, from, call.count, at) : -1;
  };
  calls.copy_range = [](int from, int to, off_t at, std::size_t count) {
    Call call{.kind = Call::kCopy, .fd = from, .count = count, .at = at};
    return may(call) ? real().copy_range(from, to, at, call.count) : -1;
  };
  calls.fcntl_lock = [](int fd, int command, struct flock* lock) {
    Call call{.kind = Call::kLock, .fd = fd, .at = lock->l_start, .lock = lock, .flags = command};
    return may(call) ? real().fcntl_lock(fd, command, lock) : -1;
  };
  calls.clone = [](int from, int to) {
    return may({.kind = Call::kClone, .fd = from}) ? real().clone(from, to) : -1;
  };
  calls.link = [](const char* from, const char* to) {
    return may({.kind = Call::kLink, .path = from}) ? real().link(from, to) : -1;
  };
  calls.link_open = [](int fd, const char* to) {
    return may({.kind = Call::kLink, .fd = fd}) ? real().link_open(fd, to) : -1;
  };
  calls.rename = [](const char* from, const char* to) {
    return may({.kind = Call::kRename, .path = from}) ? real().rename(from, to) : -1;
  };
  calls.unlink = [](const char* path) {
    return may({.kind = Call::kUnlink, .path = path}) ? real().unlink(path) : -1;
  };
  calls.fsync = [](int fd) { return may({.kind = Call::kSync, .fd = fd}) ? real().fsync(fd) : -1; };
  calls.ftruncate = [](int fd, off_t size) {
    return may({.kind = Call::kCut, .fd = fd, .at = size}) ? real().ftruncate(fd, size) : -1;
  };
  calls.fsetxattr = [](int fd, const char* name, const void* value, std::size_t size, int flags) {
    return may({.kind = Call::kAttribute, .fd = fd})
               ? real().fsetxattr(fd, name, value, size, flags)
               : -1;
  };
  calls.stat = [](const char* path, struct stat* status) {
    return may({.kind = Call::kStat, .path = path}) ? real().stat(path, status) : -1;
  };
  calls.seek_end = [](int fd) -> off_t {
    return may({.kind = Call::kStat, .fd = fd}) ? real().seek_end(fd) : -1;
  };
  calls.fstat = [](int fd, struct stat* status) {
    return may({.kind = Call::kStat, .fd = fd}) ? real().fstat(fd, status) : -1;
  };
}

void stand_aside() { common::system_calls() = real(); }

int RefusedWrite::before(SystemCall& call) {
  if (call.kind != SystemCall::kWrite) return 0;
  const bool appends = call.appends();
  if (appends && full_fd_ == call.fd && full_at_ == call.at) return ENOSPC;
  if (left_ < 0) return 0;
  if (left_ > 0) {
    --left_;
    return 0;
  }
  const bool first = !std::exchange(refused_, true);
  if (first && appends) {
    full_fd_ = call.fd;
    full_at_ = call.at;
  }
  if (first && call.count > 1) {
    call.count /= 2;
    return 0;
  }
  left_ = -1;
  return ENOSPC;
}

}  // namespace testing_support
