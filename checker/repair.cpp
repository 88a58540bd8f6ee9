#include "checker/repair.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "checker/checks.h"
#include "checker/obstacle.h"
#include "checker/temporaryfile.h"
#include "common/filecopy.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/files/files.h"
#include "isam/files/locks.h"
#include "isam/pool/buffers.h"
#include "isam/pool/mark.h"

namespace checker {
namespace {

using isam::filep;

bool has_verdict(const Check& check, IndexVerdict verdict) {
  return std::ranges::count(check.idxflag, verdict) > 0;
}

// Whether what was agreed to changes more of the index file than its dictionary.
bool nodes_will_change(const Check& check) {
  return check.badifree == Verdict::kRebuild || check.baddfree == Verdict::kRebuild ||
         check.badrfree == Verdict::kRebuild || has_verdict(check, IndexVerdict::kDelete) ||
         has_verdict(check, IndexVerdict::kRemake);
}

// Makes the file open as `fd`, which has the same nodes, serve as the index of the current pair.
void use(int fd) {
  isam::bfignor(*filep);
  filep->index.map.forget();
  filep->index.fd = fd;
}

constexpr isam::Byte kNoMagic[2] = {};  // in place of its magic: nobody takes the file for an index

}  // namespace

void Repair::remove_leftovers(const std::string& name) {
  checker::remove_leftovers(real_path(isam::mkidxname(name)));
}

bool Repair::has_failed() const {
  return check_.system_error != 0 || filep->unwritten.failed.error != 0;
}

void Repair::fail(int system_error) {
  if (check_.system_error == 0) check_.system_error = system_error;
}

void Repair::give_up(int system_error) {
  fail(system_error);
  // Otherwise end() sees by itself that it has failed, but under -n it looks at this alone.
  refused_ = refused_ || place_ == Place::kPair;
}

// Whether the old index is to be kept. A change of node size leaves it behind anyway, as NAME.IDX.
bool Repair::is_to_be_kept() {
  if (check_.options.sflag != 0) return false;
  const bool gives_up_pages =
      check_.varlen && nodes_will_change(check_) && pages_are_given_up(check_);
  // A remade index has no items for records that are not found now. Perhaps nothing but a wrong
  // record length hides them, and the old index names them.
  const bool loses_items = check_.data_misfits && has_verdict(check_, IndexVerdict::kRemake);
  return index_is_to_be_kept(has_verdict(check_, IndexVerdict::kDelete) || check_.count_is_fixed ||
                             gives_up_pages || loses_items);
}

// What the pair is like when the repair does not come into it. A change of node size has replaced
// the index before the repair.
const char* Repair::as_it_was() const {
  return check_.options.sflag == 0
             ? "the pair is as it was"
             : "the index has the new node size and nothing else; the old one is NAME.IDX";
}

// Writes the pages that wait in the pool, and the dictionary with a new stamp, and gives the
// semaphore back: false on a failure.
bool Repair::write_out() {
  isam::clear_errors();
  isam::isexit();
  isam::write_delayed();
  if (iserrno != 0) fail(iserrno);
  return iserrno == 0;
}

bool Repair::sync(int fd) {
  if (common::system_calls().fsync(fd) == 0) return true;
  fail(errno);
  return false;
}

// Syncs the index's folder. A file system that cannot sync folders says EINVAL: no failure.
void Repair::sync_folder() {
  const common::FileHold folder{
      common::open_file(folder_of(index_).c_str(), O_RDONLY | O_DIRECTORY)};
  if (folder && common::system_calls().fsync(folder.get()) != 0 && errno != EINVAL) {
    remark(std::string("its folder could not be synced: ") + std::strerror(errno));
  }
}

void Repair::tell_failure(const char* state) {
  const int error = check_.system_error != 0 ? check_.system_error : filep->unwritten.failed.error;
  remark(std::strerror(error) + std::string("; ") + state);
  if (kept_.is_kept()) remark("the index as it was is kept as " + kept_.name());
}

// From here on a signal finds the pair repaired: it says so, and leaves the kept index.
void Repair::note_repaired() {
  is_repaired_ = true;
  if (is_supervised()) check_.supervisor->is_repaired();
  Interrupt::say(said_when_interrupted("the pair is repaired"));
  kept_.keep();
}

// Ends a repair that has come into the pair: the kept index, if any, stays and can undo the repair.
void Repair::conclude() {
  note_repaired();
  if (!kept_.is_taken()) return;
  // Of a copy in the index's place complete_copy() has noted how it looks.
  if (place_ != Place::kCopy && kept_.note(filep->index.fd, filep->data.fd) != 0) {
    remark(kept_.name() + ": cannot be used to undo the repair: " + std::strerror(errno));
  }
  kept_.keep();
  if (::isatty(STDERR_FILENO) == 1) remark("the index as it was is kept as " + kept_.name());
}

bool Repair::prepare() {
  if (!is_supervised()) return true;
  index_ = real_path(isam::mkidxname(filep->name));
  keeps_ = refused_ = true;
  interrupt_.emplace(said_when_interrupted(as_it_was()));
  int error = obstacle(filep->index.fd, index_);
  if (error == 0) error = copy_index();
  if (error != 0) {
    fail(error);
    return false;
  }
  if (check_.supervisor->changes_data() && !take_kept()) return false;
  refused_ = !check_.supervisor->repair_begins(kept_.name());
  return !refused_;
}

bool Repair::begin() {
  if (is_supervised()) return !(refused_ = has_failed());
  index_ = real_path(isam::mkidxname(filep->name));
  keeps_ = is_to_be_kept();
  // The checks take for missing what the system failed to read, but the files may still hold it.
  refused_ = check_.options.nflag == 0 && has_failed();
  if (refused_) return false;
  if (check_.options.nflag == 0) {
    interrupt_.emplace(said_when_interrupted(as_it_was()));
  }
  if (!nodes_will_change(check_)) return true;
  int error = obstacle(filep->index.fd, index_);
  if (error == 0) error = copy_index();
  if (error == 0) return true;
  copy_.reset();
  if (leaves_index_usable(error)) return begin_in_place(error);
  fail(error);
  refused_ = true;
  return false;
}

// Copies the index and lets the pool work on the copy: 0, or errno.
int Repair::copy_index() {
  copy_ = std::make_unique<TemporaryFile>(index_);
  if (!*copy_) return copy_->error();
  if (common::copy_attributes(filep->index.fd, copy_->fd()) != 0 ||
      common::copy_contents(filep->index.fd, copy_->fd()) != 0) {
    return errno;
  }
  locked_ = filep->index.fd;
  use(copy_->fd());
  place_ = Place::kCopy;
  return 0;
}

// A supervisor always wants it kept.
void Repair::tell_not_kept() {
  if (is_supervised()) return;
  remark("the index as it was cannot be kept (KESTRO_KEEP=0 goes on without)");
}

// Keeps the old index, if it is to be kept, before its first byte changes. False, after a remark,
// when it cannot be kept.
bool Repair::take_kept() {
  if (!keeps_) return true;
  const int index_fd = locked_ != -1 ? locked_ : filep->index.fd;
  if (kept_.take(index_fd, index_) && kept_.show() == 0) {
    sync_folder();
    return true;
  }
  const int error = errno;
  tell_not_kept();
  fail(error);
  return false;
}

// Makes the index itself ready for the changes, as no copy can be used for this errno: false when
// that failed.
bool Repair::begin_in_place(int reason) {
  remark(std::string("no copy can be put in its place (") + std::strerror(reason) +
         "); it is repaired in place");
  // What needs room comes first: a change in place cannot be taken back.
  if (!prepare_indexes(check_) || !take_kept()) {
    refused_ = true;
    return false;
  }
  const SignalBlock block;  // what a signal says is true of the mark
  const bool marked = mark_index() && sync(filep->index.fd);
  if (marked || isam::clear_mark(*filep) != 0) place_ = Place::kInPlace;
  if (!marked) {
    refused_ = true;
    return false;
  }
  kept_.keep();
  interrupt_->say("\nkestro: " + index_ + ": interrupted in the middle of a repair in place; run " +
                  "kestro again\n");
  return true;
}

void Repair::end(bool whole) {
  try {
    bring_in(whole);
  } catch (const std::bad_alloc&) {
    if (!is_repaired_) {  // else only remarks about the kept index are missing
      fail(ENOMEM);
      tell_failure(place_ == Place::kInPlace ? kIncomplete : as_it_was());
      forget_changes();
      if (locked_ != -1) use(std::exchange(locked_, -1));
    }
  }
  if (!is_supervised()) return;
  const SignalBlock block;  // signals remove the kept index until it is known whether it stays
  if (!check_.supervisor->repair_ends(kept_.name())) return;
  kept_.keep();
  Interrupt::say(said_when_interrupted("the data file is not as it was"));
}

void Repair::bring_in(bool whole) {
  check_.prepared.clear();
  if (is_supervised()) {
    if (whole && !refused_ && place_ == Place::kCopy) return end_copy(whole);
    leave_as_it_was();
    if (locked_ != -1) use(std::exchange(locked_, -1));
    return;
  }
  refused_ = refused_ || (check_.options.nflag == 0 && place_ == Place::kPair && has_failed());
  if (check_.options.nflag != 0 || refused_) {
    if (refused_) return leave_as_it_was();
    return forget_changes();  // with -n only the dictionary's copy in memory has changed
  }
  switch (place_) {
    case Place::kPair:
      return end_dictionary(whole);
    case Place::kInPlace:
      return end_in_place(whole);
    case Place::kCopy:
      return end_copy(whole);
  }
}

// Ends a repair that needed no copy. What has changed goes into the index: the dictionary, after a
// change of node size also the node of the trail's name.
void Repair::end_dictionary(bool whole) {
  const bool changed = filep->unwritten.dictionary || filep->call.page_changed;
  if (changed) {
    if (!take_kept()) return leave_as_it_was();
    if (isam::lksemaphore(isam::Semaphore::kExclusive) != 0) {
      fail(iserrno);
      return leave_as_it_was();
    }
    const SignalBlock block;
    if (!write_out()) return tell_failure(as_it_was());
    note_repaired();
  }
  if (clears_mark(whole)) remove_mark();
  conclude();
}

// Brings the copy, as the index is to be, and what is kept of the old index to the disk. False on a
// failure, which leave_as_it_was() tells.
bool Repair::complete_copy(bool whole) {
  if (has_failed() || !write_out()) return false;
  if (clears_mark(whole)) remove_mark();
  if (has_failed() || !sync(filep->index.fd)) return false;
  if (is_supervised() && !check_.supervisor->approves()) return false;
  if (!keeps_) return true;
  if ((kept_.is_taken() || kept_.take(locked_, index_)) &&
      kept_.note(filep->index.fd, filep->data.fd) == 0)
    return true;
  fail(errno);
  tell_not_kept();
  return false;
}

void Repair::forget_changes() {
  filep->unwritten.failed = {};
  // bfdiscard() refuses when a changed page has been written. Here it went into a copy, which is
  // given up, or into an index that is told to be incomplete.
  filep->call.spilled = false;
  isam::bfdiscard(*filep);
  filep->call.page_changed = filep->unwritten.dictionary = false;
}

void Repair::leave_as_it_was() {
  // A mark that could not be taken away again keeps the pair from being opened.
  if (has_failed() || !is_supervised())
    tell_failure(place_ == Place::kInPlace ? kIncomplete : as_it_was());
  forget_changes();
}

// Ends a repair in a copy. When no page of the copy was changed after all, the copy is not needed:
// the dictionary goes into the index by itself.
void Repair::end_copy(bool whole) {
  if (!is_supervised() && !has_failed() && !filep->call.page_changed) {
    use(std::exchange(locked_, -1));
    place_ = Place::kPair;
    return end_dictionary(whole);
  }
  const bool complete = complete_copy(whole);
  if (!complete) leave_as_it_was();
  use(std::exchange(locked_, -1));
  if (!complete) return;
  if (isam::lksemaphore(isam::Semaphore::kExclusive) == 0) return put_in_place();
  fail(iserrno);
  tell_failure(as_it_was());
}

// Puts the complete copy in the index's place (docs/architecture.md). The semaphore is held.
void Repair::put_in_place() {
  const SignalBlock block;
  struct stat named {};
  if (common::system_calls().stat(index_.c_str(), &named) != 0 && errno != ENOENT) {
    fail(errno);
    return tell_failure(as_it_was());
  }
  if (named.st_dev != filep->index.device || named.st_ino != filep->index.inode) {
    return remark("was replaced by another file meanwhile; nothing is repaired");
  }
  if (kept_.is_taken() && kept_.show() != 0) {
    fail(errno);
    return tell_failure(as_it_was());
  }
  // A link made meanwhile is a second name, which would go on leading to the old index.
  int reason = named.st_nlink > 1 ? EMLINK : 0;
  if (reason == 0 && copy_->replace(index_) != 0) reason = errno;
  if (reason != 0) {
    if (!is_supervised() && leaves_index_usable(reason)) {
      place_ = Place::kInPlace;
      return write_over(reason);
    }
    fail(reason);
    return tell_failure(as_it_was());
  }
  is_repaired_ = true;
  sync_folder();
  if (common::write_at(filep->index.fd, kNoMagic, 0) != 0) {
    remark(std::strerror(errno) + std::string("; end programs that wait for the pair"));
  }
  conclude();
}

}  // namespace checker
