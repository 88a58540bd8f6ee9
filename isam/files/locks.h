// locks: byte-range locks on the index file, far beyond any real data.
//
// Needs   the current open and file
// Keeps   locks belong to the process, not to an open: the open pair counts what the process's
//         opens hold, and the kernel is asked only when the state of the whole process changes
// Never   waits for an open lock or for the whole-file lock; lksemaphore() and lock_whole_file()
//         always wait, lkrecord() only with kWait
//
// `ISAM_DEADLOCK_COUNT` (default 0) is the number of retries after a reported deadlock,
// `ISAM_DEADLOCK_SLEEP` (milliseconds, default 0: yield) the pause before each.
#pragma once

#include <cstdint>

namespace isam {

// The numbers are the system's own; nothing depends on them.
enum class Semaphore : int { kRelease = 0, kExclusive = 1, kShared = 65 };

// The semaphore serialises the calls of all processes on one pair. 0, or -1 with iserrno = errno
// and iserrio = 0x61.
int lksemaphore(Semaphore how);

// Takes the open lock for the current open, exclusive for mode ISEXCLLOCK and shared for any other
// mode but 0. Mode 0 releases it: as long as the process has other opens of the pair, it keeps the
// lock that these need. 0, or -1 with 113 when another process's open is in the way.
int lkopenlock(int mode);

// For a check of an index file that can only be opened to read, on which the system gives no
// exclusive lock. Takes the semaphore and the open lock, both shared: other processes may read the
// pair, not change it, until both are released. 0, or -1 with 113 when another process has the pair
// open, or as lksemaphore().
int lkreading();

// kTest takes no lock: it tells whether another process has one.
enum class RecordLock { kRelease, kWait, kTry, kTest };
// The two lists of an open pair's record locks. kReleasable: records that were only read while a
// transaction was open, which isrelease may release. kHeld: all others.
enum class LockList { kHeld, kReleasable };

// Locks, tests or releases record `number`; `list` is for a lock that is taken. While the process
// has the whole file locked, or the pair exclusively, it does nothing, with one exception: a record
// that a transaction changes through a shared open is locked even then, for its lock may have to
// last longer. 0, or -1 with 107 (locked by another process) or 134.
int lkrecord(std::int32_t number, RecordLock how, LockList list = LockList::kHeld);

// Whether a record that the current open has changed in a transaction was locked all the time
// since.
[[nodiscard]] bool keeps_locked(std::int32_t number);

// Takes the whole-file lock for the current open, or releases it together with all record locks of
// the file. While a transaction has changed records of the file, the locks on the kHeld list stay.
// Otherwise an open that has only records locked also releases the whole-file lock that another
// open of the process has. Does nothing for an exclusive open, nor when it is to release and the
// open has locked nothing. 0, or -1 with 107 or 134.
int lkfile(bool take);

// Releases the record locks on the kReleasable list. When there are some, and the kHeld list is
// empty, this is lkfile(false).
void lkrelease();

// Releases the whole-file lock and the record locks, as isrelease and isunlock do. During a
// transaction those of records that it has changed stay; of the others on the kHeld list, locked
// before it began, they may. 0, or -1.
int release_locks();
// Releases the lock of one record that release_locks() would release, for all opens of the process.
// 0, or -1.
int release_record_lock(std::int32_t number);
// As release_locks(), for an open whose transaction has ended: the locks of changed records go too.
// The whole-file lock of another open stays. 0, or -1.
int release_transaction_locks();

// Takes (waiting) or releases a lock on all of a file that is no index file: 0, or -1 with
// iserrno = errno and iserrio = 0x61.
int lock_whole_file(int fd, bool take);

// The highest record number for which there is a lock. The whole-file lock covers that lock too:
// isfilelocked() asks for it.
inline constexpr std::int32_t kLastLockedRecord = 0x3FFFFFFD;

}  // namespace isam
