// call: what every public call on an open runs inside.
//
//   if (isenter(isfd, kToRead) != 0) return -1;
//   ... work on the current file ...
//   return isexit();
//
// Keeps   C1 between isenter and isexit no other process changes the file: the semaphore is held,
//            or the file is open exclusively
//         C2 pages that another process may have changed since are not used: the dictionary's
//            change stamp tells
//         C3 what a call changed is written before the semaphore goes (exclusive opens: when
//            their buffers are needed, by isflush or isclose; the dictionary every few calls; the
//            file bears their mark meanwhile)
//         C4 a call whose changes cannot be written fails, takes back what it wrote, forgets what
//            it had cached and leaves the position where it was
//         C5 what an exclusive open could not write late is told by the next call but isopen,
//            which does nothing else, and again by isflush and isclose
#pragma once

#include "isam/base/current.h"

namespace isam {

// What a call needs of its open, and how it enters.
enum Entry : int {
  kToLook = 0,   // neither access
  kToRead = 1,   // the open's mode includes reading
  kToWrite = 2,  // ... writing
  kShared = 64,  // other processes' shared entries do not wait
  kAnyLocale = 0x80,
  kKeepAutoLock = 0x800,
  kKeptToo = 0x1000,  // also an open that was closed inside a transaction
  kGoesOn = 0x2000,   // also after a write that failed: it, or the next call, tells that
};

// Consecutive calls of one open for which batch mode keeps the semaphore; 0: off, else counts.
extern int batchflag;

// Makes an open current and takes its file for one call. 0, or -1 with 101 (not open; status "4" in
// isstat2 when it is open for another access) or whatever reading the dictionary fails with.
int isenter(int isfd, int entry);

// Reads the dictionary again during a call, as entering it has: 0, or -1 with iserrno.
int reread_dictionary(int entry);

// Writes all that an exclusive open has delayed: 0, or -1 with iserrno, also for what an earlier
// write has lost.
int write_delayed();

// Writes it and clears the mark: no other process need know of this one.
int write_and_unmark();

// Nothing is known any more of what an exclusive open has written or not.
void forget_exclusive();

// What was handed out must not be handed out again: the dictionary of an exclusive open goes to the
// file now. 0, or -1 with iserrno.
int write_handed_out();

// Ends a call on the current open: raises the change stamp when a page changed, writes what must
// be seen by other processes, sets the status characters and releases the semaphore. 0, or -1
// when iserrno is set.
int isexit();

// The current open's semaphore goes even in batch mode.
void release_semaphore();

}  // namespace isam
