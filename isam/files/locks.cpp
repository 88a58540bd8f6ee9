#include "isam/files/locks.h"

#include <fcntl.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <vector>

#include "common/io.h"
#include "environment/settings.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/files/lockspace.h"

namespace isam {
namespace {

using lockspace::kOpenLockLength;
using lockspace::kOpenLockStart;
using lockspace::kRecordsLength;
using lockspace::kRecordsStart;
using lockspace::kSemaphoreLength;
using lockspace::kSemaphoreStart;

struct DeadlockRetry {
  long count;
  long milliseconds;
};

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
  static const DeadlockRetry retry{environment::leading_number("ISAM_DEADLOCK_COUNT"),
                                   environment::leading_number("ISAM_DEADLOCK_SLEEP")};
  int result = common::system_calls().fcntl_lock(fd, command, lock);
  for (long left = retry.count; left > 0 && result < 0 && errno == EDEADLK; --left) {
    do_msleep(retry.milliseconds);
    result = common::system_calls().fcntl_lock(fd, command, lock);
  }
  return result;
}

int request_of(int fd, int command, int type, off_t start, off_t length) {
  struct flock lock {};
  lock.l_type = static_cast<short>(type);
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  return do_fcntl(fd, command, &lock);
}

int request(int command, int type, off_t start, off_t length) {
  return request_of(filep->index.fd, command, type, start, length);
}

using Clock = std::chrono::steady_clock;

// A lock that another process has for one call is free again sooner than the system could put this
// process to sleep and wake it: for so long at most it is asked for before it is waited for.
constexpr auto kBeforeSleep = std::chrono::microseconds(100);
// Where that was in vain the holder may be waiting for the processor that the asking takes: the
// next lock is asked for half as long, at least so long.
constexpr auto kLeastBeforeSleep = std::chrono::microseconds(8);

// For how long the next lock is asked for.
Clock::duration patience = kBeforeSleep;

void learn_patience(bool was_in_vain) {
  patience = was_in_vain ? std::max<Clock::duration>(patience / 2, kLeastBeforeSleep)
                         : std::min<Clock::duration>(patience + patience / 4, kBeforeSleep);
}

// Whether a request has met another process's lock.
bool is_taken(int result) { return result != 0 && (errno == EAGAIN || errno == EACCES); }

// Takes a lock, for which it waits, or releases one. Signals do not end the wait. A failure is told
// as that of an index file, whatever file it is: 0, or -1 with iserrno = errno and iserrio = 0x61.
int request_and_wait(int fd, int type, off_t start, off_t length) {
  const auto request_by = [=](int command) { return request_of(fd, command, type, start, length); };
  int result = request_by(F_SETLK);
  if (is_taken(result)) {
    const auto end = Clock::now() + patience;
    do {
      result = request_by(F_SETLK);
    } while (is_taken(result) && Clock::now() < end);
    learn_patience(is_taken(result));
    if (is_taken(result)) result = request_by(F_SETLKW);
  }
  while (result != 0 && errno == EINTR) result = request_by(F_SETLKW);
  return result != 0 ? failed_system(errno, Operation::kLock, FileKind::kIndex) : 0;
}

int request_open_lock(int type) {
  if (request(F_SETLK, type, kOpenLockStart, kOpenLockLength) == 0) return 0;
  return failed(kFileInUse);
}

// Gives up the current open's part in the process's open lock.
int release_open_lock() {
  const bool others_remain = filep->usecount > 1;
  if ((openp->mode & ISEXCLLOCK) != 0) {
    // An open that never got its exclusive lock holds no part of it.
    if (filep->locks.exclusives == 0) return 0;
    if (--filep->locks.exclusives > 0) return 0;
    return request_open_lock(others_remain ? F_RDLCK : F_UNLCK);
  }
  return others_remain ? 0 : request_open_lock(F_UNLCK);
}

// Any reason but ENOLCK is told as 107, unless the call has an error already.
int refused(int system_error) {
  if (system_error == ENOLCK) return failed(kNoMoreLocks);
  return failed_unless_set(kLocked);
}

int request_record(int command, int type, std::int32_t number) {
  return request(command, type, kRecordsStart + number, 1) == 0 ? 0 : refused(errno);
}

// Whether another process has any lock on a byte: 0 or 1, or -1 with errno.
int is_locked(off_t byte) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  if (do_fcntl(filep->index.fd, F_GETLK, &lock) != 0) return -1;
  return lock.l_type == F_UNLCK ? 0 : 1;
}

int test_record(std::int32_t number) {
  const int locked = is_locked(kRecordsStart + number);
  if (locked < 0) return refused(errno);
  return locked == 0 ? 0 : failed(kLocked);
}

// Whether the process's hold on the file covers every record.
bool records_are_covered() {
  return filep->locks.exclusives > 0 || filep->locks.filelocks > 0 ||
         (openp->mode & ISEXCLLOCK) != 0;
}

// Whether a record gets a lock of its own although it is covered: a transaction changes it through
// this open, which is shared, and the lock must last until the transaction ends. Before that, the
// open that covers the record may be closed or unlock the file. (A read in a transaction asks for
// the list kReleasable, so kTry with kHeld is a change.)
bool outlasts_cover(RecordLock how, LockList list) {
  return how == RecordLock::kTry && list == LockList::kHeld && may_be_undone() &&
         (openp->mode & ISEXCLLOCK) == 0;
}

// Whether the process has the record locked already.
bool is_held(std::int32_t number) {
  return filep->locks.held.contains(number) || filep->locks.releasable.contains(number);
}

// Puts a record that is locked on the list asked for, if that keeps it longer than the one that it
// is on: 0, or -1 with 116.
int keep_held(std::int32_t number, LockList list) {
  PairLocks& locks = filep->locks;
  if (!openp->locked.insert(number)) return failed(kNoMemory);
  if (list != LockList::kHeld || locks.held.contains(number)) return 0;
  if (!locks.held.insert(number)) return failed(kNoMemory);
  locks.releasable.erase(number);
  return 0;
}

int take_record(std::int32_t number, RecordLock how, LockList list) {
  if (is_held(number)) return keep_held(number, list);
  const int command = how == RecordLock::kWait ? F_SETLKW : F_SETLK;
  const bool in_file_lock = filep->locks.filelocks > 0;  // which has the record's byte already
  if (!in_file_lock && request_record(command, F_WRLCK, number) != 0) return -1;
  NumberSet& set = list == LockList::kHeld ? filep->locks.held : filep->locks.releasable;
  if (!openp->locked.insert(number) || !set.insert(number)) {
    openp->locked.erase(number);
    if (!in_file_lock) request_record(F_SETLK, F_UNLCK, number);
    return failed(kNoMemory);
  }
  return 0;
}

int release_record(std::int32_t number) {
  openp->locked.erase(number);
  if (!filep->locks.releasable.erase(number) && !filep->locks.held.erase(number)) return 0;
  return request_record(F_SETLK, F_UNLCK, number);
}

int take_file_lock() {
  // The kernel is asked also when another open of the process is exclusive: that one may be closed
  // before this lock is released.
  const bool has_it = filep->locks.filelocks > 0;
  if (!has_it && request(F_SETLK, F_WRLCK, kRecordsStart, kRecordsLength) != 0) {
    return refused(errno);
  }
  if (!openp->holds_file_lock) ++filep->locks.filelocks;
  openp->holds_file_lock = true;
  return 0;
}

bool holds_file_lock() { return openp->holds_file_lock; }
bool holds_record_locks() { return !openp->locked.empty(); }

// Whether another open of the process has the whole file locked.
bool another_holds_file() { return filep->locks.filelocks > (holds_file_lock() ? 1 : 0); }

// Under a lock of the whole file the records stay locked, and only leave the list.
void release_releasable() {
  while (!filep->locks.releasable.empty() && filep->locks.filelocks == 0) {
    const std::int32_t number = filep->locks.releasable.numbers().back();
    filep->locks.releasable.erase(number);
    request_record(F_SETLK, F_UNLCK, number);
  }
  filep->locks.releasable.clear();
}

// Unlocks the record range but for the records on the held list, from its end: 0, or -1.
int release_all_but_held() {
  off_t end = kRecordsLength;  // of what is still to be unlocked
  const std::vector<std::int32_t>& kept = filep->locks.held.numbers();
  for (auto number = kept.rbegin(); number != kept.rend(); ++number) {
    const off_t behind = off_t{*number} + 1;
    if (behind < end && request(F_SETLK, F_UNLCK, kRecordsStart + behind, end - behind) != 0) {
      return refused(errno);
    }
    end = std::min<off_t>(end, *number);
  }
  // For the kernel a length of 0 means all that follows.
  const bool all = end == 0 || request(F_SETLK, F_UNLCK, kRecordsStart, end) == 0;
  return all ? 0 : refused(errno);
}

void forget_records() {
  filep->locks.held.clear();
  filep->locks.releasable.clear();
}

// Releases the file lock, if the current open holds it, and all record locks of the process on the
// file. An open that has locked nothing releases nothing. For the others there are three cases:
//   a transaction changes records of the file: these stay locked, whichever open releases
//   the current and another open hold the file lock: it stays, and the record locks with it
//   else: the whole range is unlocked, also where the current open holds no file lock and another
//   one does. That one loses it without being told: so it has always been
int release_file_lock() {
  const bool holds = holds_file_lock();
  if (!holds && !holds_record_locks()) return 0;
  const bool held_stay = filep->locks.kept;
  if (held_stay) {
    if (holds && !another_holds_file() && release_all_but_held() != 0) return -1;
    release_releasable();  // while the file lock is still counted this only empties the list
  } else if (filep->locks.filelocks < 2 || !holds) {
    if (request(F_SETLK, F_UNLCK, kRecordsStart, kRecordsLength) != 0) return refused(errno);
    forget_records();
  }
  if (holds) --filep->locks.filelocks;
  openp->holds_file_lock = false;
  if (!held_stay) openp->locked.clear();
  return 0;
}

}  // namespace

int lksemaphore(Semaphore how) {
  const int type = how == Semaphore::kRelease     ? F_UNLCK
                   : how == Semaphore::kExclusive ? F_WRLCK
                                                  : F_RDLCK;
  if (request_and_wait(filep->index.fd, type, kSemaphoreStart, kSemaphoreLength) != 0) return -1;
  openp->holds_semaphore = how != Semaphore::kRelease;
  return 0;
}

int lkopenlock(int mode) {
  if (mode == 0) return release_open_lock();
  if (mode == ISEXCLLOCK) {
    if (filep->locks.exclusives == 0 && request_open_lock(F_WRLCK) != 0) return -1;
    ++filep->locks.exclusives;
    return 0;
  }
  return filep->usecount > 1 ? 0 : request_open_lock(F_RDLCK);
}

int lkreading() {
  if (lksemaphore(Semaphore::kShared) != 0) return -1;
  if (is_locked(kOpenLockStart) == 0 && request_open_lock(F_RDLCK) == 0) return 0;
  lksemaphore(Semaphore::kRelease);
  return failed(kFileInUse);
}

int lkrecord(std::int32_t number, RecordLock how, LockList list) {
  if (records_are_covered() && !outlasts_cover(how, list)) return 0;
  switch (how) {
    case RecordLock::kRelease:
      return release_record(number);
    case RecordLock::kTest:
      return test_record(number);
    default:
      return take_record(number, how, list);
  }
}

bool keeps_locked(std::int32_t number) {
  return (openp->mode & ISEXCLLOCK) != 0 || filep->locks.held.contains(number);
}

int lkfile(bool take) {
  if ((openp->mode & ISEXCLLOCK) != 0) return 0;
  return take ? take_file_lock() : release_file_lock();
}

// With nothing on the held list it does as lkfile(false), which mostly needs one request for all.
void lkrelease() {
  if (!filep->locks.held.empty()) {
    release_releasable();
  } else if (!filep->locks.releasable.empty()) {
    lkfile(false);
  }
}

int release_locks() {
  if (!may_be_undone() || holds_file_lock()) return lkfile(false);
  lkrelease();
  return 0;
}

// The lock of the whole file has the record's byte, too.
int release_record_lock(std::int32_t number) {
  PairLocks& locks = filep->locks;
  if ((openp->mode & ISEXCLLOCK) != 0 || !holds_record_locks()) return 0;
  const bool held_stay = locks.kept || may_be_undone();
  const bool goes = locks.releasable.erase(number) || (!held_stay && locks.held.erase(number));
  if (goes) openp->locked.erase(number);
  return goes && locks.filelocks == 0 ? request_record(F_SETLK, F_UNLCK, number) : 0;
}

int release_transaction_locks() {
  if (holds_file_lock() || !another_holds_file()) return lkfile(false);
  // The file lock of the other open has all records locked: only the lists are cleared.
  forget_records();
  openp->locked.clear();
  return 0;
}

int lock_whole_file(int fd, bool take) {
  return request_and_wait(fd, take ? F_WRLCK : F_UNLCK, 0, 0);
}

}  // namespace isam
