// transactions: what a process has changed becomes final, or is undone, as a whole.
//
// Keeps   X1 the end mark is in the log before anybody else can change what the transaction changed
//         X2 numbers and storage of deleted records are free only after a commit
//         X3 a commit whose mark could not be written leaves the transaction open
#pragma once

namespace isam::txlog {

// The log is not this process's any more: 0, or -1 with iserrno. A transaction must have ended.
int leave_log();

}  // namespace isam::txlog
