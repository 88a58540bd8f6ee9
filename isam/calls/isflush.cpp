// isflush: when other processes see what this one has changed.
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/process.h"
#include "isam/calls/traced.h"
#include "isam/log/logfile.h"

using namespace isam;

static int flush_call(int isfd) {
  // What waits may be the change of any open of the pair: this one need not be able to write.
  Call call{isfd, {.access = Access::kToRead, .goes_on = true}};
  if (!call) return -1;
  if (filep->locks.exclusives > 0) {
    write_and_unmark();
  } else {
    // What was held back has been written on entering. Only a failure is left to be told.
    write_delayed();
    if (txlog::logstate.lost) failed_unless_set(kLogWrite);
  }
  return call.end();
}

extern "C" int isflush(int isfd) {
  return traced("isflush", isfd, [=] { return flush_call(isfd); });
}

extern "C" int isbatch(int n) {
  know_process();
  if (n == 0 || n == 1) batchflag = n;
  // Whatever `n` is, what batch mode holds is let go.
  if (openp != nullptr && openp->file != nullptr) release_semaphore();
  return 0;
}
