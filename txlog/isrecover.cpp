// isrecover: isrecover and isrecvr.
#include "isam/calls/traced.h"
#include "txlog/recovery.h"

static int recover_call(int mode) {
  isam::txlog::RecoveryObserver silent;
  return isam::txlog::recover(mode, silent);
}

extern "C" int isrecvr(int mode) {
  return isam::traced("isrecvr", mode, [=] { return recover_call(mode); });
}

extern "C" int isrecover(void) { return isrecvr(0); }
