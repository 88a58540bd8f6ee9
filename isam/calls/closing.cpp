#include "isam/calls/closing.h"

#include <climits>

#include "environment/settings.h"
#include "isam/base/errors.h"
#include "isam/calls/bulkload.h"
#include "isam/calls/call.h"
#include "isam/calls/process.h"
#include "isam/calls/transactions.h"
#include "isam/files/files.h"
#include "isam/files/locks.h"
#include "isam/log/logfile.h"
#include "isam/log/logwriter.h"
#include "isam/pool/buffers.h"

namespace isam {
namespace {

// All of the process's exclusive opens of the current file end: 0, or -1 with iserrno, the pair's
// mark left and what could not be written lost.
int end_exclusive() {
  if (write_and_unmark() == 0) {
    bfease(true);
    return 0;
  }
  bfflush(*filep);  // once more: what is written need not be mended
  filep->unwritten.direct.clear();
  bfdrop(*filep, INT32_MIN);
  bfease(true);
  filep->call.page_changed = filep->unwritten.dictionary = false;
  forget_exclusive();  // this close tells it, no call of those that go on sharing the file
  return -1;
}

// Whether closing waits for readers: the environment's ISCLOSE_SHARE_LOCK is 0.
bool close_waits() {
  static const bool waits = environment::leading_number("ISCLOSE_SHARE_LOCK") == 0;
  return waits;
}

bool is_writable(const Open& open) { return (open.mode & 3) != ISINPUT; }

// A transaction may have to undo changes made through the open.
bool outlives_its_close(const Open& open) {
  return txlog::transaction_is_open() && is_writable(open) &&
         (open.mode & (ISTRANS | ISNOLOG)) == ISTRANS && !open.kept;
}

}  // namespace

int close_open(Open& open) {
  drop_load(open);
  static_cast<void>(open.logged ? txlog::logclose(open) : txlog::append_owed());
  if (!open.holds_semaphore && filep->locks.exclusives == 0) {
    lksemaphore(Semaphore::kExclusive);
  }
  // Everything is in the files before the locks go. Of an exclusive open much may be in the pool.
  const bool ends = (open.mode & ISEXCLLOCK) != 0 && filep->locks.exclusives == 1;
  const int result = ends ? end_exclusive() : write_delayed();
  const KeepError keep;
  lkfile(false);
  lkopenlock(0);
  return result;
}

namespace {

int close_entered(Open& open, Call& call) {
  if (outlives_its_close(open)) {
    drop_load(open);
    open.kept = true;
    txlog::append_owed();
    write_delayed();  // the process may end before the transaction
    return call.end();
  }
  close_open(open);
  const int result = call.end();
  release_semaphore();
  const KeepError keep;
  freeopen(open);
  openp = nullptr;
  return result;
}

// What cannot be entered any more is closed all the same; the error stays.
int close_unentered(Open& open) {
  const KeepError keep;
  make_current(open);
  if (filep->locks.exclusives == 0) {  // the dictionary copy is not to be trusted
    filep->call.page_changed = filep->unwritten.dictionary = false;
  }
  close_open(open);
  release_semaphore();
  freeopen(open);
  openp = nullptr;
  return -1;
}

}  // namespace

int close_in_use(Open& open) {
  FirstFailure failure;
  if (txlog::owes_storage(open) && !outlives_its_close(open)) failure.note(txlog::free_owed(open));
  const bool shared = bfpend(*open.file) == 0 && !close_waits();
  Call call{isfd_of(open), {.shared = shared, .any_locale = true, .kept_too = true}};
  failure.note(call ? close_entered(open, call) : close_unentered(open));
  return failure.tell();
}

void close_kept_beside(int isfd) {
  know_process();
  const Open* const alone = open_of(isfd);
  if (alone == nullptr || alone->kept || (alone->mode & ISEXCLLOCK) == 0) return;
  for (int other = 0; other < nopens; ++other) {
    Open* const open = open_of(other);
    if (open == nullptr || open->file != alone->file) continue;
    if (open->kept && !open->transaction.undoable) close_in_use(*open);
  }
}

}  // namespace isam
