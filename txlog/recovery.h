// recovery: applying a log to files restored from a copy.
//
// One process reads the log for all that wrote it. What a writer did outside a transaction is
// applied at once; what it did inside one is held until the end mark, and dropped when there is
// none.
//
//        BW            image, index, ...             CW: apply all
//   --------> begun -----------------------> begun ------------------> not begun
//     ^                held                          RW: what was not undone
//     |  a BW without an end before it, or the opening of a file by another process with the
//        number: the writer was killed
//
// What others have applied may show that some of what is held, or dropped, stands in the files, and
// that the last change of a killed process was not made: see txlog/replay.
//
// Needs   the log open (islogopen)
// Keeps   Y1 any bytes for a log: a record is used only as far as it reaches, held records cost
//            memory in proportion to what they take in the log, and numbers past a file's end are
//            bounded by what the log can have inserted
//         Y2 the log itself is not written to
#pragma once

#include <string_view>

#include "isam/log/logformat.h"

namespace isam::txlog {

// Flags. With any of them an error log (txlog/errorlog) is made, which must not exist yet.
enum RecoveryMode : int {
  kAnyWriter = 1,  // a writer whose start is not in the log is taken to be outside a transaction
  kTolerant = 2,   // what cannot be applied is noted and left out
};

// Hears of what a recovery does, record by record.
class RecoveryObserver {
 public:
  RecoveryObserver() = default;
  RecoveryObserver(const RecoveryObserver&) = delete;
  RecoveryObserver& operator=(const RecoveryObserver&) = delete;
  virtual ~RecoveryObserver() = default;

  virtual void applied(const LogRecord& /*record*/) {}
  // Left out, or the one that ends the recovery; iserrno tells why, as far as a call has failed.
  virtual void left_out(const LogRecord& /*record*/, std::string_view /*message*/) {}
  // Applied before, and now undone or replaced: its writer was killed before it did it.
  virtual void gave_way(const LogRecord& /*record*/) {}
  // A transaction without an end: so many held records of it were dropped.
  virtual void unfinished(std::int32_t /*process*/, std::size_t /*records*/) {}
  // One of them that was not part of the transaction, though written inside it.
  virtual void dropped(const LogRecord& /*record*/) {}
};

// Applies the open log, and closes it and all files: 0, or -1 with iserrno. 122 without an open
// log, 102 in a transaction of this process, which goes on.
int recover(int mode, RecoveryObserver& observer);

}  // namespace isam::txlog
