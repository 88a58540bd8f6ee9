// watching: looks at a pair that others have open, at one moment between two calls of theirs.
//
// Needs   the current file, opened to read
// Keeps   whoever only reads goes on; who changes the pair waits in his call, and who wants it
//         exclusively gets 113, until the pair is closed
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <span>
#include <vector>

namespace isam {

// Takes the semaphore and the open lock, both shared, and waits for them at most `wait`. From time
// to time it calls `waits`. 0; or -1 with 113, and in `holder` the process that has the lock which
// is in the way (0: not known), or with the system's error. The process's interval timer and
// SIGALRM are used meanwhile.
int lkwatch(std::chrono::milliseconds wait, pid_t& holder, void (*waits)());

struct LockedRecords {
  std::int32_t first;
  std::int32_t last;
  pid_t process;  // 0: not known
};

// The range that holds a number; null when none does. `locked`: in ascending order.
[[nodiscard]] const LockedRecords* find_locked(std::span<const LockedRecords> locked,
                                               std::int32_t record);

// The processes that have the pair open, as far as the system tells them.
[[nodiscard]] std::vector<pid_t> open_by();

// The record numbers up to `last` that other processes have locked, in ascending order.
[[nodiscard]] std::vector<LockedRecords> locked_records(std::int32_t last);

}  // namespace isam
