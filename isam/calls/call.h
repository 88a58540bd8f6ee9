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
//         C5 when a late write fails, which an exclusive open has put off, the next call tells it
//            and does nothing else; isflush and isclose tell it again. isopen and the end of a
//            transaction leave it to the call after them
#pragma once

#include "isam/base/current.h"

namespace isam {

// What a call needs its open's mode to include.
enum class Access : std::uint8_t { kToLook = 0, kToRead = 1, kToWrite = 2, kToReadAndWrite = 3 };

// How a call enters.
struct Entry {
  Access access = Access::kToLook;
  bool shared = false;           // changes nothing in the file: others' such calls do not wait
  bool any_locale = false;       // also when the client's locale is not that of the file's keys
  bool keeps_auto_lock = false;  // what the read before has locked stays locked
  bool kept_too = false;         // also through an open kept for its transaction; includes goes_on
  bool loads = false;            // part of a bulk load
  bool goes_on = false;          // even if a late write has failed; this call or the next tells it
  bool holds_on = false;         // what calls before it hold back (isam/calls/heldback) may stay so
};

// 0: no batch mode. In batch mode calls end without releasing the semaphore: 1 plus the number of
// calls that have ended so. At the end of the sixth isexit() releases it and sets this to 1.
extern int batchflag;

// Whether the call under way lets its file go at its end.
[[nodiscard]] bool lets_go();

// Makes an open current and takes its file for one call (Call does). 0, or -1 with 101 (not open;
// status "4" in isstat2 when it is open for another access), 117 or 159 (locale), or the error of
// a lock, of the dictionary, of the data file or of a late write.
int isenter(int isfd, Entry entry);

// Reads the dictionary again during a call. As isenter does, it then drops what the change stamp
// shows to be stale and looks at the locale. 0, or -1 with iserrno.
int reread_dictionary(Entry entry);

// Writes all that an exclusive open has delayed: 0, or -1 when a write fails or an earlier one has
// failed (Unwritten::failed and lost). iserrno is then that of the first failure; one that was set
// before stays unless a write fails now.
int write_delayed();

// Calls write_delayed(), cuts unused room off and clears the mark: now the files are complete, also
// if this process is killed.
int write_and_unmark();

// Forgets what the open pair knows from exclusive opens: failed writes, the state of the mark, the
// room reserved in the files.
void forget_exclusive();

// For a change of the dictionary copy that must not be lost, such as a unique id that a program was
// given, for nobody else may get it: the dictionary of an exclusive open is written now, that of
// another at the call's end. 0, or -1 with iserrno.
int write_handed_out();

// Ends a call on the current open (Call does): raises the change stamp when a page changed, writes
// what must be seen by other processes, sets the status characters and releases the semaphore. 0,
// or -1 when iserrno is set.
int isexit();

// Notes that a call uses the current open's file: when the process is short of descriptors, the
// file whose last use is longest ago is closed first.
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
  // Neither end() nor the end of the scope leaves any more: the caller gives up the open itself,
  // and its locks with it (abandon_open).
  void give_up() { entered_ = false; }

 private:
  bool entered_;
};

// The current open's semaphore goes even in batch mode.
void release_semaphore();

}  // namespace isam
