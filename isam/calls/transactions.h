// transactions: what a process has changed becomes final, or is undone, as a whole.
//
// Keeps   X1 the end mark is in the log before anybody else can change what the transaction changed
//         X2 numbers and storage of deleted records are free only after a commit
//         X3 a commit whose mark could not be written leaves the transaction open
//         X4 what has become free is owed until the file has it so: each end of a transaction and
//            the close of the open try again
#pragma once

#include "isam/base/current.h"

namespace isam::txlog {

// Whether ended transactions have left something to free through an open.
[[nodiscard]] inline bool owes_storage(const Open& open) {
  return open.committed > 0 || !open.shortened.empty();
}

// Frees what `open` owes: 0, or -1 with iserrno and the rest still owed. A transaction under way
// must not have deleted records through it.
int free_owed(Open& open);

// The log is not this process's any more: 0, or -1 with iserrno. A transaction must have ended.
int leave_log();

}  // namespace isam::txlog
