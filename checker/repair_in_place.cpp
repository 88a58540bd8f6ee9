// repair_in_place: how a repair goes on in the index itself where no copy can take its place, and
// the mark of unfinished changes, which tells of that.
#include <cerrno>
#include <cstring>

#include "checker/repair.h"
#include "common/filecopy.h"
#include "isam/base/errors.h"
#include "isam/files/files.h"
#include "isam/pool/mark.h"

namespace checker {

using isam::filep;

// Whether the mark that others left for unfinished changes may go: the run has checked both files
// and mended all that it found.
bool Repair::clears_mark(bool whole) const {
  return whole && check_.options.iflag == 0 && check_.declined == 0 && !has_failed();
}

// Marks an index that is to be changed in place, so that nobody opens the pair meanwhile. False
// when the mark does not stand there; set_mark() alone also succeeds where other bytes have its
// place.
bool Repair::mark_index() {
  const bool written = isam::set_mark(*filep) == 0;
  const int found = written ? isam::find_mark(*filep) : -1;
  filep->mark.state = isam::MarkState::kUnneeded;  // as before: the repair sees to the mark
  if (found == 1) return true;
  if (found == 0) remark("other bytes stand where the mark of a repair in place would");
  fail(found == 0 ? ENOTSUP : iserrno);
  return false;
}

void Repair::remove_mark() {
  if (isam::remove_mark(*filep) != 0) fail(iserrno);
  filep->mark.state = isam::MarkState::kUnneeded;
}

void Repair::end_in_place(bool whole) {
  const bool failed_before = has_failed();
  // Written also after a failure: the index is not as it was any more.
  if (!write_out() || failed_before || !sync(filep->index.fd)) {
    return tell_failure(kIncomplete);
  }
  if (isam::clear_mark(*filep) != 0) fail(iserrno);
  if (clears_mark(whole)) remove_mark();
  conclude();
}

// Makes the index like the complete copy, which cannot take its place for this errno. The bytes of
// the mark are copied last, so that the mark stands until all others are on the disk.
void Repair::write_over(int reason) {
  remark(std::string("no copy can be put in its place (") + std::strerror(reason) +
         "); it is repaired in place");
  const int from = copy_->fd();
  const int to = filep->index.fd;
  constexpr std::int64_t kBehindMark = isam::kMarkOffset + isam::kMarkSize;
  if (!mark_index() || !sync(to)) {
    return tell_failure(isam::clear_mark(*filep) == 0 ? as_it_was() : kIncomplete);
  }
  kept_.keep();
  const bool written =
      common::copy_differences(from, to, kBehindMark, common::file_size(from)) == 0 &&
      common::copy_differences(from, to, 0, isam::kMarkOffset) == 0 && sync(to) &&
      common::copy_differences(from, to, isam::kMarkOffset, kBehindMark) == 0;
  if (!written) {
    fail(errno);
    return tell_failure(kIncomplete);
  }
  conclude();
}

}  // namespace checker
