// lockcalls: islock, isunlock and isfilelocked.
#include "isam/errors.h"
#include "isam/frame.h"
#include "isam/locks.h"
#include "isam/traced.h"

namespace isam {
namespace {

bool is_exclusive() { return (openp->mode & ISEXCLLOCK) != 0; }
bool is_manual() { return (openp->mode & ISMANULOCK) != 0; }

int lock_or_unlock(bool take) {
  if (is_exclusive()) return 0;
  if (!is_manual()) return failed(kNotManualLock);
  return take ? lkfile(true) : release_locks();
}

}  // namespace
}  // namespace isam

using namespace isam;

static int lock_call(int isfd) {
  if (isenter(isfd, kToLook) != 0) return -1;
  lock_or_unlock(true);
  return isexit();
}

extern "C" int islock(int isfd) {
  return traced("islock", isfd, [=] { return lock_call(isfd); });
}

static int unlock_call(int isfd) {
  if (isenter(isfd, kToLook | kShared) != 0) return -1;
  lock_or_unlock(false);
  return isexit();
}

extern "C" int isunlock(int isfd) {
  return traced("isunlock", isfd, [=] { return unlock_call(isfd); });
}

extern "C" int isfilelocked(int isfd, int how) {
  if (isenter(isfd, kToLook | kShared) != 0) return -1;
  bool locked = false;
  if (how == 0) {
    locked = lkrecord(kLastLockedRecord, RecordLock::kTest) != 0;
  } else {
    // Waiting with the semaphore held would keep the other process from ever unlocking.
    isexit();
    release_semaphore();
    locked = lkrecord(kLastLockedRecord, RecordLock::kWait) != 0;
    if (!locked) lkrecord(kLastLockedRecord, RecordLock::kRelease);
    set_status("0000");
  }
  clear_errors();
  if (how == 0) isexit();
  return locked ? 1 : 0;
}
