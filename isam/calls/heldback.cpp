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
  unwritten.stamp_lags = unwritten.is_announced = false;
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
  constexpr std::size_t kMostHeld = 64;
  const Unwritten& unwritten = filep->unwritten;
  const bool file_stays = (batchflag != 0 && !lets_go()) || filep->call.is_of_many;
  return file_stays && may_be_undone() && !is_alone() && !filep->geometry.varlen &&
         !dictp->d_audits() && unwritten.pages == nullptr && unwritten.failed.error == 0 &&
         unwritten.held_count < kMostHeld && txlog::one_more_may_wait();
}

bool hold_back() {
  Unwritten& unwritten = filep->unwritten;
  if (!txlog::logstate.change_logged || !txlog::log_waits() || iserrno != 0 ||
      unwritten.pages != nullptr || unwritten.direct.empty() || unwritten.dictionary || !bfhold()) {
    return false;
  }
  filep->call.page_changed = false;
  openp->stamp = ++filep->cached.stamp;
  dictp->set_d_modcount(filep->cached.stamp);
  unwritten.stamp_lags = true;
  return true;
}

void announce_held_back() {
  Unwritten& unwritten = filep->unwritten;
  if (unwritten.is_announced || !unwritten.stamp_lags) return;
  unwritten.is_announced = true;
  unwritten.stamp_lags = false;
  if (write_stamp() == 0) return;
  append();
  lose();
}

int write_held_back() {
  Unwritten& unwritten = filep->unwritten;
  const bool is_announced = std::exchange(unwritten.is_announced, false);
  const bool is_raised = std::exchange(unwritten.stamp_lags, false);
  // A call that goes on with a change raises it further and writes it, before its own record.
  const bool goes_on = filep->call.page_changed && iserrno == 0;
  const bool is_due = is_raised && !(is_announced && goes_on);
  if (append() == 0 && (!is_due || write_stamp() == 0) && bfwrite_held() == 0) return 0;
  lose();
  return -1;
}

}  // namespace isam
