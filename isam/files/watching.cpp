#include "isam/files/watching.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>

#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/files/locklist.h"
#include "isam/files/lockspace.h"

namespace isam {
namespace {

using std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr auto kTick = Milliseconds(20);
constexpr auto kLongestAsking = std::chrono::seconds(1);
constexpr const char* kLockList = "/proc/locks";

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

// The process that keeps a lock of this type and range from being taken; 0: not known.
pid_t holder_of(int type, off_t start, off_t length) {
  struct flock lock = range_of(type, start, length);
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

int take(const WantedLock& lock, int type, steady_clock::time_point until, pid_t& holder,
         void (*waits)()) {
  while (request(lock.command, range_of(type, lock.start, lock.length)) != 0) {
    if (!is_refusal(errno)) return failed_system(errno, Operation::kLock, FileKind::kIndex);
    waits();
    if (steady_clock::now() >= until) {
      holder = holder_of(type, lock.start, lock.length);
      return failed(kFileInUse);
    }
    if (lock.command == F_SETLK) {
      const timespec pause{0, kTick.count() * 1'000'000};
      ::nanosleep(&pause, nullptr);
    }
  }
  return 0;
}

void release(const WantedLock& lock) {
  request(F_SETLK, range_of(F_UNLCK, lock.start, lock.length));
}

int take_both(int type, Milliseconds wait, pid_t& holder, void (*waits)()) {
  const auto until = steady_clock::now() + wait;
  const Ticks ticks;
  if (take(kOpenLock, type, until, holder, waits) != 0) return -1;
  if (take(kSemaphore, type, until, holder, waits) == 0) {
    openp->holds_semaphore = true;
    return 0;
  }
  release(kOpenLock);
  return -1;
}

std::int32_t number_of(off_t byte) {
  return static_cast<std::int32_t>(byte - lockspace::kRecordsStart);
}

}  // namespace

int lkwatch(Milliseconds wait, pid_t& holder, void (*waits)()) {
  return take_both(F_RDLCK, wait, holder, waits);
}

int lkalone(Milliseconds wait, pid_t& holder, void (*waits)()) {
  if (take_both(F_WRLCK, wait, holder, waits) != 0) return -1;
  ++filep->locks.exclusives;
  return 0;
}

void lkunwatch() {
  release(kSemaphore);
  release(kOpenLock);
  openp->holds_semaphore = false;
}

RecordLocks::RecordLocks(std::int32_t last) {
  std::ifstream list(kLockList);
  *this = RecordLocks(last, list);
}

RecordLocks::RecordLocks(std::int32_t last, std::istream& list)
    : last_(static_cast<std::int32_t>(std::min<off_t>(last, lockspace::kRecordsLength - 1))) {
  std::vector<ListedLock> locks = locks_of_others(list, ::getpid());
  std::ranges::sort(locks, {}, &ListedLock::first);
  for (const ListedLock& lock : locks) {
    if (lock.last >= lockspace::kRecordsStart) add(lock.first, lock.last, lock.process);
  }
}

// A range of bytes, but for what an earlier range has of it.
void RecordLocks::add(off_t first, off_t last, pid_t process) {
  const off_t behind_known = known_.empty() ? 0 : off_t{std::prev(known_.end())->second.last} + 1;
  const off_t begin = std::max(first, lockspace::kRecordsStart + behind_known);
  const off_t end = std::min(last, lockspace::kRecordsStart + last_);
  if (begin > end) return;
  known_[number_of(begin)] = {number_of(begin), number_of(end), process};
}

// Asks about a gap: whether there is a lock in it, which is known then.
bool RecordLocks::ask(std::int32_t first, std::int32_t last) {
  if (asked_ >= kLongestAsking) return false;
  const auto start = steady_clock::now();
  struct flock lock = range_of(F_WRLCK, lockspace::kRecordsStart + first, off_t{last} - first + 1);
  const bool told = common::system_calls().fcntl_lock(filep->index.fd, F_GETLK, &lock) == 0;
  asked_ += steady_clock::now() - start;
  if (!told || lock.l_type == F_UNLCK) {
    free_.insert(first);
    return false;
  }
  const off_t end = lockspace::kRecordsStart + last + 1;
  const std::int32_t begins =
      number_of(std::max(lock.l_start, off_t{lockspace::kRecordsStart + first}));
  const std::int32_t ends =
      number_of((lock.l_len == 0 ? end : std::min(lock.l_start + lock.l_len, end)) - 1);
  known_[begins] = {begins, ends, std::max<pid_t>(lock.l_pid, 0)};
  return true;
}

const LockedRecords* RecordLocks::next(std::int32_t from, std::int32_t to) {
  to = std::min(to, last_);
  while (from <= to) {
    const auto behind = known_.upper_bound(from);
    const LockedRecords* const before =
        behind == known_.begin() ? nullptr : &std::prev(behind)->second;
    if (before != nullptr && from <= before->last) return before;
    const bool is_last = behind == known_.end();
    const std::int32_t first = before == nullptr ? 0 : before->last + 1;
    const std::int32_t last = is_last ? last_ : behind->first - 1;
    // Whatever is found in the gap is found by the next round.
    if (!free_.contains(first) && ask(first, last)) continue;
    if (is_last) return nullptr;
    from = behind->first;
  }
  return nullptr;
}

// A lock of that one byte is an open lock.
std::vector<pid_t> open_by() {
  std::ifstream list(kLockList);
  std::vector<pid_t> processes;
  for (const ListedLock& lock : locks_of_others(list, ::getpid())) {
    if (lock.first == lockspace::kOpenLockStart) processes.push_back(lock.process);
  }
  return processes;
}

}  // namespace isam
