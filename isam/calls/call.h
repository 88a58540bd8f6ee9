// call: what every public call on an open runs inside.
//
//   Call call{isfd, {.access = Access::kToRead}};
//   if (!call) return -1;                          // iserrno is set
//   ... work on the current file ...
//   return call.end();
//
// A path that returns without ending its call leaves the file all the same (~Call).
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
//         C5 a late write of an exclusive open that failed is told by the next call, which does
//            nothing else, and again by isflush and isclose. isopen and the end of a transaction
//            leave it to the call after them
#pragma once

#include "isam/base/current.h"

namespace isam {

// What a call needs its open's mode to include.
enum class Access : std::uint8_t { kToLook = 0, kToRead = 1, kToWrite = 2, kToReadAndWrite = 3 };

// How a call enters.
struct Entry {
  Access access = Access::kToLook;
  bool shared = false;           // changes nothing in the file: others' such calls do not wait
  bool any_locale = false;       // whatever locale the order of the file's keys needs
  bool keeps_auto_lock = false;  // what the read before has locked stays locked
  bool kept_too = false;         // also an open closed inside a transaction; and as goes_on
  bool goes_on = false;          // also when a late write has failed; it or the next call tells it
};

// 0: no batch mode. Else 1 more than the calls for which one open has kept the semaphore.
extern int batchflag;

// Makes an open current and takes its file for one call (Call does). 0, or -1 with 101 (not open;
// status "4" in isstat2 when it is open for another access), 117 or 159 (locale), or the error of
// a lock, of the dictionary, of the data file or of a late write.
int isenter(int isfd, Entry entry);

// Reads the dictionary again during a call, and does what follows from it: 0, or -1 with iserrno.
int reread_dictionary(Entry entry);

// Writes all that an exclusive open has delayed: 0, or -1 with iserrno, also for what an earlier
// write has lost.
int write_delayed();

// Does that, cuts unused room off and clears the mark: no other process need know of this one.
int write_and_unmark();

// Nothing is known any more of what an exclusive open has written or not.
void forget_exclusive();

// What was handed out must not be handed out again: the dictionary goes to the file, that of an
// exclusive open now, that of another at the call's end. 0, or -1 with iserrno.
int write_handed_out();

// Ends a call on the current open (Call does): raises the change stamp when a page changed, writes
// what must be seen by other processes, sets the status characters and releases the semaphore. 0,
// or -1 when iserrno is set.
int isexit();

// The current open's file is used by a call.
void note_use();

// Whether what is changed may wait: this open or another of the process keeps other processes off.
[[nodiscard]] bool is_alone();

// A call may make several changes, each as if it were a call of its own while the file stays
// entered: between two of them stand end_change(), which writes what was changed and keeps the
// position, and begin_change(). The first begins with the call, the last ends with it. A failure is
// left in iserrno.
void end_change();
// 0, or -1 with iserrno.
int begin_change();

// One call on an open: enters where it is made, and leaves when it ends, at the latest with its
// scope.
class [[nodiscard]] Call {
 public:
  Call(int isfd, Entry entry) : entered_(isenter(isfd, entry) == 0) {}
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    if (entered_) isexit();
  }

  // Whether it has entered. If not, iserrno and the status characters say why.
  explicit operator bool() const { return entered_; }

  // Leaves: what isexit gives.
  [[nodiscard]] int end() {
    entered_ = false;
    return isexit();
  }
  // Leaves where the result is -1 whatever isexit gives.
  int end_failed() {
    static_cast<void>(end());
    return -1;
  }
  // What the call works with in the trees. Its position is kept for the open's next call, if this
  // one does not fail.
  [[nodiscard]] Cursor& cursor() const { return openp->cursor; }
  // Does not leave: the open itself is given up (abandon_open).
  void give_up() { entered_ = false; }

 private:
  bool entered_;
};

// The current open's semaphore goes even in batch mode.
void release_semaphore();

}  // namespace isam
