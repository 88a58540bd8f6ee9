// islock: locks of whole files, and the release of what an open has locked.
#include <cstdint>

#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/traced.h"
#include "isam/files/locks.h"

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
  Call call{isfd, {}};
  if (!call) return -1;
  lock_or_unlock(true);
  return call.end();
}

extern "C" int islock(int isfd) {
  return traced("islock", isfd, [=] { return lock_call(isfd); });
}

static int unlock_call(int isfd) {
  Call call{isfd, {.shared = true}};
  if (!call) return -1;
  lock_or_unlock(false);
  return call.end();
}

extern "C" int isunlock(int isfd) {
  return traced("isunlock", isfd, [=] { return unlock_call(isfd); });
}

extern "C" int isfilelocked(int isfd, int how) {
  Call call{isfd, {.shared = true}};
  if (!call) return noted("isfilelocked", isfd, -1);
  bool locked = false;  // or, after waiting, the wait was broken off
  if (how == 0) {
    locked = lkrecord(kLastLockedRecord, RecordLock::kTest) != 0;
  } else {
    // Waiting with the semaphore held would keep the other process from ever unlocking.
    static_cast<void>(call.end());
    release_semaphore();
    locked = lkrecord(kLastLockedRecord, RecordLock::kWait) != 0;
    if (!locked) lkrecord(kLastLockedRecord, RecordLock::kRelease);
    set_status("0000");
  }
  clear_errors();
  return locked ? 1 : 0;
}

static int release_call(int isfd) {
  Call call{isfd, {.shared = true}};
  if (!call) return -1;
  release_locks();
  return call.end();
}

extern "C" int isrelease(int isfd) {
  return traced("isrelease", isfd, [=] { return release_call(isfd); });
}

static int release_record_call(int isfd, std::int32_t recnum) {
  Call call{isfd, {.shared = true}};
  if (!call) return -1;
  if (recnum < 1) {
    failed(kBadArgument);
  } else {
    release_record_lock(recnum);
  }
  return call.end();
}

extern "C" int isrelrec(int isfd, std::int32_t recnum) {
  return traced("isrelrec", isfd, [=] { return release_record_call(isfd, recnum); });
}
