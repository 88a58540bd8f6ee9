#include "isam/locks.h"

#include <fcntl.h>
#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "common/io.h"
#include "isam/current.h"
#include "isam/errors.h"

namespace isam {
namespace {

// Ranges in the lock space of the index file.
constexpr off_t kSemaphoreStart = 0;
constexpr off_t kSemaphoreLength = 0x3FFFFFFF;
constexpr off_t kOpenLockStart = 0x7FFFFFFF;
constexpr off_t kOpenLockLength = 1;

struct DeadlockRetry {
  long count;
  long milliseconds;
};

long environment_number(const char* name) {
  const char* text = std::getenv(name);
  return text == nullptr ? 0 : std::strtol(text, nullptr, 0);
}

void do_msleep(long milliseconds) {
  if (milliseconds < 0) return;
  if (milliseconds == 0) {
    ::sched_yield();
    return;
  }
  timespec pause{milliseconds / 1000, milliseconds % 1000 * 1'000'000};
  ::nanosleep(&pause, nullptr);
}

// Every lock request; a reported deadlock is tried again as the environment says.
int do_fcntl(int fd, int command, struct flock* lock) {
  static const DeadlockRetry retry{environment_number("ISAM_DEADLOCK_COUNT"),
                                   environment_number("ISAM_DEADLOCK_SLEEP")};
  int result = common::system_calls().fcntl_lock(fd, command, lock);
  for (long left = retry.count; left > 0 && result < 0 && errno == EDEADLK; --left) {
    do_msleep(retry.milliseconds);
    result = common::system_calls().fcntl_lock(fd, command, lock);
  }
  return result;
}

int request(int command, int type, off_t start, off_t length) {
  struct flock lock {};
  lock.l_type = static_cast<short>(type);
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  return do_fcntl(filep->idxfd, command, &lock);
}

int request_open_lock(int type) {
  if (request(F_SETLK, type, kOpenLockStart, kOpenLockLength) == 0) return 0;
  return failed(kFileInUse);
}

// Gives up the current open's part in the process's open lock.
int release_open_lock() {
  const bool shared_remains = filep->usecount > 1;
  if ((openp->mode & ISEXCLLOCK) != 0) {
    // An open that never got its exclusive lock holds no part of it.
    if (filep->exclusives == 0) return 0;
    if (--filep->exclusives > 0) return 0;
    return request_open_lock(shared_remains ? F_RDLCK : F_UNLCK);
  }
  return shared_remains ? 0 : request_open_lock(F_UNLCK);
}

}  // namespace

int lksemaphore(Semaphore how) {
  const int type = how == Semaphore::kRelease     ? F_UNLCK
                   : how == Semaphore::kExclusive ? F_WRLCK
                                                  : F_RDLCK;
  if (request(F_SETLKW, type, kSemaphoreStart, kSemaphoreLength) != 0) {
    return failed_system(errno, Operation::kLock, FileKind::kIndex);
  }
  if (how == Semaphore::kRelease) {
    openp->flags = static_cast<std::uint16_t>(openp->flags & ~kHoldsSemaphore);
  } else {
    openp->flags |= kHoldsSemaphore;
  }
  return 0;
}

int lkopenlock(int mode) {
  if (mode == 0) return release_open_lock();
  if (mode == ISEXCLLOCK) {
    if (filep->exclusives == 0 && request_open_lock(F_WRLCK) != 0) return -1;
    ++filep->exclusives;
    return 0;
  }
  return filep->usecount > 1 ? 0 : request_open_lock(F_RDLCK);
}

}  // namespace isam
