// locks: byte-range locks on the index file, far beyond any real data.
//
// Needs   the current open and file
// Keeps   locks belong to the process, not to an open: the open pair counts what the process's
//         opens hold, and the kernel is asked only when the state of the whole process changes
// Never   waits for an open lock; lksemaphore() always waits, lkrecord() only with kWait
//
// `ISAM_DEADLOCK_COUNT` (default 0) is the number of retries after a reported deadlock,
// `ISAM_DEADLOCK_SLEEP` (milliseconds, default 0: yield) the pause before each.
#pragma once

#include <cstdint>

namespace isam {

enum class Semaphore : int { kRelease = 0, kExclusive = 1, kShared = 65 };

// The semaphore serialises the calls of all processes on one pair. 0, or -1 with iserrno = errno
// and iserrio = 0x61.
int lksemaphore(Semaphore how);

// Takes the open lock, exclusive for mode ISEXCLLOCK and shared for any other; mode 0 releases
// it. 0, or -1 with 113 when another process's open is in the way.
int lkopenlock(int mode);

// For an index file that can only be read, and cannot be locked to write: keeps others from
// changing the pair, not from reading it, until lkopenlock(0) and the release of the semaphore. 0,
// or -1 with 113 when another process has the pair open.
int lkreading();

enum class RecordLock { kRelease, kWait, kTry, kTest };
enum class LockList { kHeld, kReleasable };

// Locks, tests or releases record `number`. Nothing to do where the process's hold on the whole
// file covers it. 0, or -1 with 107 (locked by another process) or 134.
int lkrecord(std::int32_t number, RecordLock how, LockList list = LockList::kHeld);

// Whether a record that the current open has changed in a transaction was locked all the time
// since.
[[nodiscard]] bool keeps_locked(std::int32_t number);

// Takes the whole-file lock, or releases it together with all record locks of the file except of
// records that an open transaction has changed: 0, or -1 with 107 or 134.
int lkfile(bool take);

// Releases the locks on the releasable list: of what was read, not of what was changed.
void lkrelease();

// Releases what the current open has locked, except what a transaction has changed: 0, or -1.
int release_locks();
// Releases it when the transaction has ended, with what that has changed. A lock of the whole file
// that another open has stays: 0, or -1.
int release_transaction_locks();

// Takes (waiting) or releases a lock on all of another file: 0, or -1 with iserrno = errno and
// iserrio = 0x61.
int lock_whole_file(int fd, bool take);

// Last record number of the lock range, whose byte the whole-file lock covers.
inline constexpr std::int32_t kLastLockedRecord = 0x3FFFFFFD;

}  // namespace isam
