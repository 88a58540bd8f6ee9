// watching: looks at a pair that others have open, at one moment between two calls of theirs.
//
// Needs   the current file, opened to read
// Keeps   whoever only reads goes on; who changes the pair waits in his call, and who wants it
//         exclusively gets 113, until the pair is closed
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

namespace isam {

// Takes the semaphore and the open lock, both shared, and waits for them at most `wait`. From time
// to time it calls `waits`. 0; or -1 with 113, and in `holder` the process that has the lock which
// is in the way (0: not known), or with the system's error. The process's interval timer and
// SIGALRM are used meanwhile.
int lkwatch(std::chrono::milliseconds wait, pid_t& holder, void (*waits)());
// The same, both exclusive: nobody else has the pair open.
int lkalone(std::chrono::milliseconds wait, pid_t& holder, void (*waits)());
// Releases what lkwatch() has taken: the pair may change again.
void lkunwatch();

struct LockedRecords {
  std::int32_t first;
  std::int32_t last;
  pid_t process;  // 0: not known
};

// The record numbers that other processes have locked.
//
// The system is asked about each gap between known ones by itself, and only when somebody wants to
// know of a number in it. Behind some such questions its list tells most at once; reading that
// takes as long as a thousand questions. After a second of questions what is not known counts as
// not locked.
class RecordLocks {
 public:
  RecordLocks() = default;  // nobody has any locked
  // Numbers up to `last`; the system's list is the file `list`.
  explicit RecordLocks(std::int32_t last, const char* list = "/proc/locks");

  // The first range that holds a number from `from` to `to`, until the next call; null: none does.
  [[nodiscard]] const LockedRecords* next(std::int32_t from, std::int32_t to);
  [[nodiscard]] const LockedRecords* find(std::int32_t record) { return next(record, record); }

 private:
  void read_list();
  void add(std::int32_t first, std::int32_t last, pid_t process);
  [[nodiscard]] bool ask(std::int32_t first, std::int32_t last);

  std::int32_t last_ = -1;
  const char* list_ = nullptr;
  std::map<std::int32_t, LockedRecords> known_;  // by their first numbers; none overlap
  std::set<std::int32_t> free_;                  // where gaps begin in which nothing is locked
  int questions_ = 0;
  std::chrono::steady_clock::duration asked_{};
};

// The processes that have the pair open, as far as the system tells them.
[[nodiscard]] std::vector<pid_t> open_by();

}  // namespace isam
