// logfile: the transaction log that this process has open, and what of it is the process's own.
//
//   not logging (1) --islogopen--> logging (2) --isbegin--> in a transaction (0)
//         ^------islogclose----------+  ^-----iscommit, isrollback-----+
//
// Keeps   T1 what one call logs goes to the end of the log in one piece, under the log lock
//         T2 a piece that could not be written whole is taken off again: the log ends with a whole
//            record, and this process's chain is as it was
//         T3 what a killed process left of a record at the end of the log is cut off before
//            anything is appended
//         T4 what is logged of a change that is not made after all is taken off again, or its
//            opposite, if it has one, is this process's next record: as long as that cannot be
//            written, nothing else of the process can
//         T5 what waits is in the log before anything else of the process, and before the change
//            that it tells of is in a file
// Gives   appending (`LogPiece`) and taking back (`take_back_logged`, `LogHold`). isam/log/logread
//         reads a log
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "isam/base/current.h"
#include "isam/log/logformat.h"

namespace isam::txlog {

// Whether isbegin() has been called, and whether the log knows.
enum class Begin : int { kNone = 0, kPending = 1, kWritten = 2 };

struct LogState {
  int fd = -1;
  Begin begin = Begin::kNone;
  bool in_rollback = false;
  bool in_recovery = false;
  bool owes_rollback = false;  // a rollback's end mark could not be written: it goes first
  Link last;                   // the last linked record of this process
  std::int32_t process = 0;    // as records have it: of the moment when the log was opened
  int user = 0;                // ... likewise
  bool is_suspended = false;
  int suspended = kNotLogging;       // txflag before it was suspended
  bool change_logged = false;        // the current call has logged a change that may yet fail
  OfTransaction transaction_before;  // what the call's open had of the transaction before it
  bool holds_back = false;           // changes wait to be written (isam/calls/heldback)
  bool lost = false;                 // ... and some could not be: the transaction cannot commit
};
extern LogState logstate;

[[nodiscard]] inline bool log_is_open() { return logstate.fd >= 0; }
// Whether a transaction is open, also while logging is suspended.
[[nodiscard]] inline bool transaction_is_open() {
  return (logstate.is_suspended ? logstate.suspended : txflag) == kInTransaction;
}
// Whether a change through the current open is logged.
[[nodiscard]] inline bool logs_changes() {
  return txflag != kNotLogging && (openp->mode & ISNOLOG) == 0;
}

// Opens the log file; none is open yet. 0, or -1 with 118, 120, 121 or 21502. What another copy of
// the library in this process has open cannot be opened (120).
int open_log(const char* path);
// In a child of the process that opened the log: it goes on in the child's own name, without what
// the parent had begun.
void take_log_over();
// Closes it: 0, or -1 with 101 or the system's error.
int close_log();
// Waits until the log is on the disk: 0, or -1 with the system's error.
int sync_log();
// Takes (waiting) or releases the lock on the whole log: 0, or -1 with the system's error and
// iserrio 0x61.
int lkloglog(bool take);

enum class Linked : bool { kNo, kYes };

// Whether a record may wait for the ones that follow.
enum class When : bool { kNow, kMayWait };

// What stands before the record itself in a piece, in this order.
struct LeadIn {
  bool opposite = false;  // the opposite that is owed
  bool rollback = false;  // the mark of a rollback that is owed
  bool begin = false;     // the begin mark, when it is due
  Open* opens = nullptr;  // the open whose file-open record the log does not have, or null
};

// What one call appends to the log: what is owed, the begin mark if it is due, the file-open record
// of the open if the log does not have it, and the record itself. What waits goes with it. All
// pieces share one buffer: there is one LogPiece at a time.
class LogPiece {
 public:
  // `open` may be null: then the record is about no open file.
  LogPiece(Open* open, LogType type, Linked linked);

  LogRecordBuilder& record() { return record_; }
  // Appends it all, or lets it wait: 0, or -1 with 121, also for a record longer than records may
  // be.
  int writelog(When when = When::kNow);

 private:
  int fail() const;

  LeadIn lead_;
  std::size_t records_before_;  // that wait
  std::size_t before_;          // ... their bytes
  std::size_t start_;           // of the record itself
  LogRecordBuilder record_;
};

// Whether records wait.
[[nodiscard]] bool log_waits();
// Whether one more may wait: a piece has a greatest length.
[[nodiscard]] bool one_more_may_wait();
// Appends what waits: 0, or -1 with 121, and it goes on waiting.
int offer_waiting();
// Appends what waits: 0, or -1 with 121, and the log will never have it.
int append_waiting();

// Takes the record logged last back, for what it tells was not done after all. No other piece has
// been begun since. The record is cut off as long as nobody has logged anything behind it. Else its
// opposite, if it has one, is logged, and a rollback passes both by. An opposite that cannot be
// logged is owed. iserrno stays.
void take_back_logged();

// Writes what is owed, if anything is: 0, or -1 with 121.
int append_owed();

// The log's lock; several hold it within each other. What this process appends while one lives goes
// to the log under one lock, and behind each other. A lock that is refused is asked for again by
// what appends.
class LogLock {
 public:
  LogLock();
  LogLock(const LogLock&) = delete;
  LogLock& operator=(const LogLock&) = delete;
  ~LogLock();

  // Whether it was had; false with the system's error and iserrio 0x61.
  [[nodiscard]] bool held() const { return held_; }

 private:
  bool held_;
};

// Holds the log while it lives (one at a time): nobody else appends anything, and what this process
// appends is cut off at its end, unless keep() was called. For what must be logged before it is
// done and has no opposite.
class LogHold {
 public:
  LogHold();
  LogHold(const LogHold&) = delete;
  LogHold& operator=(const LogHold&) = delete;
  ~LogHold();

  // Whether the lock was had; false with 121.
  [[nodiscard]] bool held() const { return lock_.held(); }
  void keep() { start_ = kNothing; }

 private:
  friend class LogPiece;
  static constexpr std::int64_t kNothing = -1;

  LogLock lock_;
  // Where the first record appended begins. Its lead-in stays in the log: what that tells is true.
  std::int64_t start_ = kNothing;
};

}  // namespace isam::txlog
