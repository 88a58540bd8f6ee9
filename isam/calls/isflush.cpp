// isflush: when other processes see what this one has changed.
#include "isam/calls/call.h"
#include "isam/calls/process.h"
#include "isam/calls/traced.h"

using namespace isam;

static int flush_call(int isfd) {
  Call call{isfd, {.access = Access::kToRead, .goes_on = true}};
  if (!call) return -1;
  if (filep->locks.exclusives > 0) {
    write_and_unmark();
  } else {
    write_delayed();
  }
  return call.end();
}

extern "C" int isflush(int isfd) {
  return traced("isflush", isfd, [=] { return flush_call(isfd); });
}

extern "C" int isbatch(int n) {
  know_process();
  if (n == 0 || n == 1) batchflag = n;
  if (openp != nullptr && openp->file != nullptr) release_semaphore();
  return 0;
}
