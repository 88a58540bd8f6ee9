#include "isam/calls/heldback.h"

#include <cerrno>
#include <utility>

#include "common/io.h"
#include "isam/calls/call.h"
#include "isam/files/dictionary.h"
#include "isam/pool/buffers.h"

namespace isam {
namespace {

// What was to be written is given up, and nothing is known of it any more.
void lose() {
  txlog::logstate.lost = true;
  const KeepError keep;
  Unwritten& unwritten = filep->unwritten;
  filep->call.spilled = false;  // or bfdiscard() would refuse
  bfdiscard(*filep);
  bfignor(*filep);
  unwritten.held_count = 0;
  unwritten.dictionary = filep->call.page_changed = false;
  openp->position.depth = openp->cursor.bt.depth = -1;
  if (dictread() == 0) filep->cached.stamp = openp->stamp = dictp->d_modcount();
}

// Raises the stamp in the file. The rest of the dictionary copy may be of a change that is refused.
int write_stamp() {
  const auto stamp = ConstBytes{dictp->raw}.subspan(kStampOffset, kStampSize);
  if (common::write_at(filep->index.fd, stamp, kStampOffset) == 0) return 0;
  return failed_system(errno, Operation::kWrite, FileKind::kIndex);
}

int append() {
  txlog::logstate.holds_back = false;
  if (txlog::append_waiting() == 0) return 0;
  txlog::logstate.change_logged = false;  // there is nothing to withdraw
  return -1;
}

}  // namespace

bool may_be_held_back() {
  return batchflag != 0 && !lets_go() && may_be_undone() && !is_alone() &&
         !filep->geometry.varlen && !dictp->d_audits() && filep->unwritten.pages == nullptr &&
         filep->unwritten.failed.error == 0;
}

bool hold_back() {
  Unwritten& unwritten = filep->unwritten;
  if (!txlog::logstate.change_logged || !txlog::log_waits() || iserrno != 0 ||
      unwritten.pages != nullptr || unwritten.direct.bytes.empty() || unwritten.dictionary ||
      !bfhold()) {
    return false;
  }
  filep->call.page_changed = false;
  openp->stamp = ++filep->cached.stamp;
  dictp->set_d_modcount(filep->cached.stamp);
  unwritten.stamp_lags = unwritten.held_count > 1;
  if (!unwritten.stamp_lags && dictwrite() != 0) {
    append();
    lose();
  }
  return true;
}

int write_held_back() {
  Unwritten& unwritten = filep->unwritten;
  const bool is_raised = std::exchange(unwritten.stamp_lags, false);
  // A call that goes on with a change raises it further and writes it.
  const bool is_due = is_raised && (!filep->call.page_changed || iserrno != 0);
  if (append() == 0 && (!is_due || write_stamp() == 0) && bfwrite_held() == 0) return 0;
  lose();
  return -1;
}

}  // namespace isam
