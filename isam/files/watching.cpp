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

RecordLocks::RecordLocks(std::int32_t last, const char* list)
    : last_(static_cast<std::int32_t>(std::min<off_t>(last, lockspace::kRecordsLength - 1))),
      list_(list) {}

void RecordLocks::read_list() {
  std::ifstream list(list_);
  for (const ListedLock& lock : locks_of_others(list, ::getpid())) {
    const off_t first = std::max(lock.first, lockspace::kRecordsStart);
    const off_t last = std::min(lock.last, lockspace::kRecordsStart + last_);
    if (first <= last) add(number_of(first), number_of(last), lock.process);
  }
}

// But for what other ranges have of it.
void RecordLocks::add(std::int32_t first, std::int32_t last, pid_t process) {
  while (first <= last) {
    const auto behind = known_.upper_bound(first);
    const std::int32_t taken = behind == known_.begin() ? -1 : std::prev(behind)->second.last;
    if (taken >= first) {
      first = taken + 1;
      continue;
    }
    const std::int32_t end = behind == known_.end() ? last : std::min(last, behind->first - 1);
    known_[first] = {first, end, process};
    first = end + 1;
  }
}

// Asks about a gap: whether there may be a lock in it, all that are learned of being known then.
bool RecordLocks::ask(std::int32_t first, std::int32_t last) {
  constexpr int kFewQuestions = 64;
  if (asked_ >= kLongestAsking) return false;
  if (++questions_ == kFewQuestions) {
    read_list();
    return true;
  }
  const auto start = steady_clock::now();
  struct flock lock = range_of(F_WRLCK, lockspace::kRecordsStart + first, off_t{last} - first + 1);
  const bool told = common::system_calls().fcntl_lock(filep->index.fd, F_GETLK, &lock) == 0;
  asked_ += steady_clock::now() - start;
  if (!told || lock.l_type == F_UNLCK) {
    free_.insert(first);
    return false;
  }
  const off_t from = lockspace::kRecordsStart + first;
  const off_t end = lockspace::kRecordsStart + last + 1;
  const off_t behind = lock.l_len == 0 ? end : std::min(lock.l_start + lock.l_len, end);
  add(number_of(std::max(lock.l_start, from)), number_of(behind - 1),
      std::max<pid_t>(lock.l_pid, 0));
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
  std::ifstream list("/proc/locks");
  std::vector<pid_t> processes;
  for (const ListedLock& lock : locks_of_others(list, ::getpid())) {
    if (lock.first == lockspace::kOpenLockStart) processes.push_back(lock.process);
  }
  return processes;
}

}  // namespace isam
