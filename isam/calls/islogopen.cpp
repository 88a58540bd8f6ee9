// islogopen: the log of a process is opened, left, suspended and taken up again.
#include <utility>

#include "isam/base/errors.h"
#include "isam/calls/process.h"
#include "isam/calls/traced.h"
#include "isam/calls/transactions.h"
#include "isam/files/files.h"
#include "isam/log/logfile.h"
#include "isam/log/logwriter.h"

namespace isam::txlog {

int leave_log() {
  for (int isfd = 0; isfd < nopens; ++isfd) {
    Open* const open = open_of(isfd);
    if (open != nullptr) open->logged = false;
  }
  txflag = kNotLogging;
  return close_log();
}

}  // namespace isam::txlog

using namespace isam;
using namespace isam::txlog;

namespace {

int open_call(const char* path) {
  know_process();
  clear_errors();
  set_status("0000");
  const int opened = log_is_open() ? failed(kLogOpen) : open_log(path);
  if (opened != 0) {
    set_status("9090");
    return -1;
  }
  txflag = kLogging;
  return 0;
}

int close_call() {
  know_process();
  clear_errors();
  set_status("0000");
  isresumlog();  // a suspended transaction is rolled back, too
  FirstFailure failure;
  if (txflag == kInTransaction) failure.note(isrollback());
  failure.note(append_owed());
  failure.note(leave_log());
  if (failure.tell() == 0) return 0;
  set_status("9090");
  return -1;
}

}  // namespace

extern "C" int islogopen(const char* path) {
  return traced("islogopen", kNoNumber, path, Carries::kName, [=] { return open_call(path); });
}

extern "C" int islogclose(void) { return traced("islogclose", kNoNumber, close_call); }

extern "C" int issusplog(void) {
  know_process();
  if (!logstate.is_suspended) {
    logstate.is_suspended = true;
    logstate.suspended = std::exchange(txflag, static_cast<int>(kNotLogging));
  }
  return 0;
}

extern "C" int isresumlog(void) {
  know_process();
  if (logstate.is_suspended) txflag = logstate.suspended;
  logstate.is_suspended = false;
  return 0;
}
