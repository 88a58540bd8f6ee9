// heldback: changes of a transaction that wait for others.
//
// While an open keeps its file from one call to the next, in batch mode, nobody else can see what
// its calls change, nor what a call that rewrites many records has changed so far. Inside a
// transaction, which a kill undoes in any case, records that are rewritten without a change of keys
// are then held back: their images go to the log in one piece and they to the file, at the latest
// when the file is let go.
//
// Keeps   H1 no record is in the file before its image is in the log, and the stamp is raised
//         H2 the stamp in the file is raised before a call returns that has changed anything: a
//            copy that another process may have made before is not used any more
//            (isam/calls/scanahead)
//         H3 when something cannot be written, none of it is in the file, and the transaction can
//            only be rolled back. The call that lets the file go tells it, isflush does, or else
//            the commit. A commit that finds no room in the log has given nothing up yet
// Never   holds back what other opens of the process could ask for: another open's call, and each
//         call that does not say that it can do with it (Entry::holds_on), writes it first
#pragma once

#include "isam/base/errors.h"
#include "isam/log/logfile.h"

namespace isam {

// Whether the rewrite under way of a record of fixed length may be held back. No key has changed if
// no page has.
[[nodiscard]] bool may_be_held_back();

// Holds back what the current call has changed, and whose image waits: whether it does.
[[nodiscard]] bool hold_back();

// Raises the stamp in the file for what is held back, unless it is raised. A failure is in iserrno;
// then what is held back is given up.
void announce_held_back();

// Writes what is held back: 0, or -1 with iserrno. What could not be written is given up, and with
// it what the current call has changed.
int write_held_back();

// Writes it, if there is anything. A failure is kept for the commit.
inline void release_held_back() {
  if (!txlog::logstate.holds_back) return;
  const KeepError keep;
  write_held_back();
}

}  // namespace isam
