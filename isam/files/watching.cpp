#include "isam/files/watching.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/files/lockspace.h"

namespace isam {
namespace {

using std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr auto kTick = Milliseconds(20);
constexpr std::size_t kMostRanges = 1 << 20;

struct flock range_of(int type, off_t start, off_t length) {
  struct flock lock {};
  lock.l_type = static_cast<short>(type);
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  return lock;
}

int request(int command, struct flock lock) {
  return common::system_calls().fcntl_lock(filep->index.fd, command, &lock);
}

// Lets a system call that waits return now and then.
class Ticks {
 public:
  Ticks() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, &before_);
    sigset_t alarm;
    ::sigemptyset(&alarm);
    ::sigaddset(&alarm, SIGALRM);
    ::sigprocmask(SIG_UNBLOCK, &alarm, &mask_before_);
    set(kTick);
  }
  Ticks(const Ticks&) = delete;
  Ticks& operator=(const Ticks&) = delete;
  ~Ticks() {
    set(Milliseconds(0));
    ::sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
    ::sigaction(SIGALRM, &before_, nullptr);
  }

 private:
  static void set(Milliseconds interval) {
    const timeval time{0, static_cast<suseconds_t>(interval.count()) * 1000};
    const itimerval timer{time, time};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
  }

  struct sigaction before_ {};
  sigset_t mask_before_{};
};

// The process that keeps a shared lock of the range from being taken; 0: not known.
pid_t holder_of(off_t start, off_t length) {
  struct flock lock = range_of(F_RDLCK, start, length);
  const bool told = common::system_calls().fcntl_lock(filep->index.fd, F_GETLK, &lock) == 0;
  return told && lock.l_type != F_UNLCK ? std::max<pid_t>(lock.l_pid, 0) : 0;
}

bool is_refusal(int error) {
  return error == EAGAIN || error == EACCES || error == EINTR || error == EDEADLK;
}

// Who opens the pair exclusively keeps the open lock as long as it is open, so nobody queues for
// it. The semaphore changes hands at every call: a request that waits in the system gets it
// soonest.
struct WantedLock {
  off_t start;
  off_t length;
  int command;
};
constexpr WantedLock kOpenLock{lockspace::kOpenLockStart, lockspace::kOpenLockLength, F_SETLK};
constexpr WantedLock kSemaphore{lockspace::kSemaphoreStart, lockspace::kSemaphoreLength, F_SETLKW};

int take(const WantedLock& lock, steady_clock::time_point until, pid_t& holder, void (*waits)()) {
  while (request(lock.command, range_of(F_RDLCK, lock.start, lock.length)) != 0) {
    if (!is_refusal(errno)) return failed_system(errno, Operation::kLock, FileKind::kIndex);
    waits();
    if (steady_clock::now() >= until) {
      holder = holder_of(lock.start, lock.length);
      return failed(kFileInUse);
    }
    if (lock.command == F_SETLK) {
      const timespec pause{0, kTick.count() * 1'000'000};
      ::nanosleep(&pause, nullptr);
    }
  }
  return 0;
}

}  // namespace

int lkwatch(Milliseconds wait, pid_t& holder, void (*waits)()) {
  const auto until = steady_clock::now() + wait;
  const Ticks ticks;
  if (take(kOpenLock, until, holder, waits) != 0) return -1;
  if (take(kSemaphore, until, holder, waits) == 0) {
    openp->holds_semaphore = true;
    return 0;
  }
  request(F_SETLK, range_of(F_UNLCK, kOpenLock.start, kOpenLock.length));
  return -1;
}

std::vector<LockedRecords> locked_records(std::int32_t last) {
  struct Gap {
    off_t begin;
    off_t end;
  };
  const off_t end =
      lockspace::kRecordsStart + std::min<off_t>(off_t{last} + 1, lockspace::kRecordsLength);
  // The system tells of any one lock in a range: what lies on its two sides is asked for anew.
  std::vector<Gap> gaps{{lockspace::kRecordsStart, end}};
  std::vector<LockedRecords> found;
  while (!gaps.empty() && found.size() < kMostRanges) {
    const Gap gap = gaps.back();
    gaps.pop_back();
    if (gap.begin >= gap.end) continue;
    struct flock lock = range_of(F_WRLCK, gap.begin, gap.end - gap.begin);
    if (common::system_calls().fcntl_lock(filep->index.fd, F_GETLK, &lock) != 0) break;
    if (lock.l_type == F_UNLCK) continue;
    const off_t from = std::max(lock.l_start, gap.begin);
    const off_t to = lock.l_len == 0 ? gap.end : std::min(lock.l_start + lock.l_len, gap.end);
    found.push_back({static_cast<std::int32_t>(from - lockspace::kRecordsStart),
                     static_cast<std::int32_t>(to - 1 - lockspace::kRecordsStart),
                     std::max<pid_t>(lock.l_pid, 0)});
    gaps.push_back({gap.begin, from});
    gaps.push_back({to, gap.end});
  }
  std::ranges::sort(found, {}, &LockedRecords::first);
  return found;
}

const LockedRecords* find_locked(std::span<const LockedRecords> locked, std::int32_t record) {
  const auto behind = std::ranges::upper_bound(locked, record, {}, &LockedRecords::first);
  if (behind == locked.begin()) return nullptr;
  const LockedRecords& range = *std::prev(behind);
  return record <= range.last ? &range : nullptr;
}

// A line of the list is such as "1: POSIX  ADVISORY  READ 4711 08:01:1234 2147483647 2147483647".
// The device there need not be that of stat(); a lock of that one byte is an open lock, anyway.
std::vector<pid_t> open_by() {
  std::vector<pid_t> processes;
  std::ifstream list("/proc/locks");
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line);
    std::string number;
    std::string kind;
    std::string word;
    std::string device;
    pid_t process = 0;
    off_t start = -1;
    words >> number >> kind >> word >> word >> process >> device >> start;
    const auto colon = device.rfind(':');
    if (!words || kind != "POSIX" || start != lockspace::kOpenLockStart || colon == device.npos) {
      continue;
    }
    const bool is_pair = device.substr(colon + 1) == std::to_string(filep->index.inode);
    if (is_pair && process != ::getpid()) processes.push_back(std::max<pid_t>(process, 0));
  }
  return processes;
}

}  // namespace isam
