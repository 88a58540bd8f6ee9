// locklist: the system's list of the locks that processes have.
//
// It holds those of the processes that this one can see, none of another container's, and while
// others come and go it may lack one: what must be known for certain is asked of the system.
#pragma once

#include <sys/types.h>

#include <iosfwd>
#include <vector>

namespace isam {

struct ListedLock {
  pid_t process;  // 0: not known
  off_t first;
  off_t last;
};

// The locks that other processes have on the file of which `self` has the semaphore or the open
// lock, which is how the list's own name of that file is found; none where it has neither.
[[nodiscard]] std::vector<ListedLock> locks_of_others(std::istream& list, pid_t self);

}  // namespace isam
