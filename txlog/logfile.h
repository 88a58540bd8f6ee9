// logfile: the transaction log that this process has open, and what of it is the process's own.
//
//   not logging (1) --islogopen--> logging (2) --isbegin--> in a transaction (0)
//         ^------islogclose----------+  ^-----iscommit, isrollback-----+
//
// Keeps   T1 what one call logs goes to the end of the log in one piece, under the log lock
//         T2 a piece that could not be written whole is taken off again: the log ends with a whole
//            record, and this process's chain is as it was
//         T3 what a killed process left of a record at the end of the log is cut off before
//         anything
//            is appended
// Gives   appending (`LogPiece`) and reading (`LogWindow`)
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "isam/current.h"
#include "txlog/logformat.h"

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
  std::int32_t process = 0;    // as stored in records: ids of the moment when the log was opened
  int user = 0;
  bool is_suspended = false;
  int suspended = kNotLogging;  // txflag before it was suspended
  bool image_logged = false;    // the current call has logged the image of a change
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

// Opens the log file: 0, or -1 with 116, 118, 120, 121 or 21502.
int open_log(const char* path);
// Closes it: 0, or -1 with 101 or the system's error.
int close_log();
// Waits until the log is on the disk: 0, or -1 with the system's error.
int sync_log();
// Takes and releases the lock on the whole log: 0, or -1 with the system's error and iserrio 0x61.
int lkloglog(bool take);

enum class Linked : bool { kNo, kYes };

// What one call appends to the log: a rollback mark that is owed, the begin mark if it is due, the
// file-open record of the open if the log does not have it, and the record itself.
class LogPiece {
 public:
  // `open` may be null: then the record is about no open file.
  LogPiece(OpenRecord* open, LogType type, Linked linked);

  RecordBuilder& record() { return record_; }
  // Appends it all: 0, or -1 with 121.
  int writelog();

 private:
  bool owes_;
  bool begins_;
  bool opens_;
  Linked linked_;
  OpenRecord* open_;
  std::size_t start_;  // of the record itself
  RecordBuilder record_;
};

// Takes the image logged last back, for the change was not made after all: its opposite is logged
// behind it, and a rollback passes both by.
void withdraw_image();

// Reads a log piece by piece through one buffer.
class LogWindow {
 public:
  explicit LogWindow(int fd) : fd_(fd) {}

  // The record of `length` bytes at `offset`, when it is wholly there; else none, with iserrno 118
  // when reading failed. Earlier records are likely to be at hand afterwards.
  [[nodiscard]] LogRecord isgetprev(std::int64_t offset, int length);
  // The record at `offset`, as long as it says: none at the end of the log, and where a record
  // would reach past it; one shorter than a record can be has less than the smallest length.
  [[nodiscard]] LogRecord isgetnext(std::int64_t offset);

 private:
  [[nodiscard]] bool holds(std::int64_t offset, std::size_t length) const;
  [[nodiscard]] ConstBytes at(std::int64_t offset, std::size_t length) const;
  // Reads `length` bytes from `offset` into the buffer.
  int readlog(std::int64_t offset, std::size_t length);

  int fd_;
  std::int64_t start_ = 0;
  std::vector<Byte> buffer_;
  std::size_t filled_ = 0;
};

}  // namespace isam::txlog
