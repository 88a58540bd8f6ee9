// locks: byte-range locks on the index file, far beyond any real data.
//
// Needs   the current open and file
// Keeps   locks belong to the process, not to an open: the file record counts what the process's
//         opens hold, and the kernel is asked only when the state of the whole process changes
// Never   waits for an open lock; the semaphore waits
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

}  // namespace isam
