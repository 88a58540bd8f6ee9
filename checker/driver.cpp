#include "checker/driver.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "checker/checks.h"
#include "checker/repair.h"
#include "checker/resize.h"
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/files/dictionary.h"
#include "isam/files/files.h"
#include "isam/files/locks.h"
#include "isam/keys/keychain.h"
#include "isam/pool/buffers.h"
#include "isam/records/freelists.h"
#include "locale/collation.h"
#include "locale/name.h"

namespace checker {
namespace {

using isam::dictp;
using isam::filep;
using isam::openp;

constexpr std::size_t kSuffixLength = 4;

// Opens the pair and makes it current; false when that failed. A mark of unfinished changes is no
// obstacle: the repair sees to it.
bool open_pair(const Check& check, const std::string& name) {
  isam::Open* open = isam::allocopen();
  if (open == nullptr) return false;
  const bool changes_nothing = check.options.nflag != 0;
  const int access = changes_nothing ? ISINPUT : ISINOUT;
  open->file = isam::allocfile(
      name, access, changes_nothing ? isam::IndexAccess::kOrToRead : isam::IndexAccess::kToWrite);
  if (open->file == nullptr) {
    isam::freeopen(*open);
    return false;
  }
  open->mode = access + (open->file->index.mode == O_RDONLY ? ISMANULOCK : ISEXCLLOCK);
  open->file->mark.state = isam::MarkState::kUnneeded;
  isam::make_current(*open);
  return true;
}

bool index_can_be_written() { return filep->index.mode != O_RDONLY; }

// Takes the open lock: no other process uses the pair. An index file that can only be read does
// not allow that; then others may still read the pair, but none changes it. False with iserrno set.
bool lock_pair() {
  if (!index_can_be_written()) return isam::lkreading() == 0;
  if (isam::lksemaphore(isam::Semaphore::kExclusive) != 0) return false;
  const bool locked = isam::lkopenlock(ISEXCLLOCK) == 0;
  isam::lksemaphore(isam::Semaphore::kRelease);
  return locked;
}

// Tells the library's current error, if there is one, and closes the pair. Whatever locks are left
// go with its descriptors.
void close_pair(Check& check) {
  check.prterr();
  isam::freeopen(*openp);
}

// Locks the pair and reads its dictionary. False when that failed: the pair is closed again.
bool lock_and_load(Check& check) {
  const bool locked = lock_pair();
  if (locked && isam::dictread() == 0) {
    filep->cached.stamp = openp->stamp = dictp->d_modcount();
    return true;
  }
  if (locked) isam::lkopenlock(0);
  close_pair(check);
  return false;
}

void refuse_pair(Check& check) {
  isam::clear_errors();
  check.found(Code::kCannotOpen);
}

// Changes the node size while no other process has the pair open. The pair is closed again; the
// check opens the new index.
bool resize_alone(Check& check, const std::string& name) {
  if (!can_be_kept(check, name)) return false;
  if (!open_pair(check, name)) {
    refuse_pair(check);
    return false;
  }
  const bool locked = lock_pair();
  const bool resized = locked && resize(check, name) == 0;
  if (locked) isam::lkopenlock(0);
  close_pair(check);
  return resized;
}

// Whether the client's locale is accepted for a file whose keys the locale `stored` has ordered:
// the client's name must be the stored one or its beginning. But "c", the order of bytes, is no
// beginning of "ca_es": it is accepted for "c" (blanks may follow), "c." and "c@" only.
bool collation_matches(std::string_view client, std::string_view stored) {
  if (client.empty() || !stored.starts_with(client)) return false;
  if (client != locale::kByteOrder) return true;
  const std::string_view rest = stored.substr(client.size());
  const bool is_padding = rest.find_first_not_of(' ') == std::string_view::npos;
  return is_padding || rest[0] == '.' || rest[0] == '@';
}

bool locale_matches(Check& check) {
  if (!dictp->d_collate()) return true;
  if (locale::chkulxinit() != 0) {
    isam::failed(isam::kLocaleInvalid);
    return false;
  }
  const std::string_view client = locale::file_system_name();
  const std::string_view stored{dictp->d_collname(),
                                ::strnlen(dictp->d_collname(), isam::kCollationNameSize)};
  if (collation_matches(client, stored)) return true;
  check.found({.code = Code::kOtherCollation, .name = stored});
  return false;
}

bool record_buffer_is_ready(Check& check) {
  const isam::Geometry& is = filep->geometry;
  if (isam::mktemprec(std::max(is.maxreclen, is.reclen)) == 0) return true;
  check.found(Code::kNoMemory);
  return false;
}

// Whether a repair that was agreed to takes nodes from the free list.
bool nodes_will_be_taken(const Check& check) {
  return check.baddfree == Verdict::kRebuild ||
         std::ranges::count(check.idxflag, IndexVerdict::kRemake) > 0;
}

// The list of free nodes comes first: makdfree and makindex take nodes from it.
void rebuild_free_lists(Check& check) {
  const bool nodes_are_taken = nodes_will_be_taken(check);
  // Where nodes will be taken from the list as it is, its nodes get the marks that they lack. A
  // list that was found sound and yet cannot be drawn from is rebuilt unasked; one whose rebuild
  // was declined stays.
  if (check.badifree != Verdict::kRebuild && nodes_are_taken && !check.node_list_is_declined() &&
      !mark_node_list(check) && check.badifree == Verdict::kSound) {
    check.badifree = Verdict::kRebuild;  // it has a node that is too full to be drawn from
  }
  const bool relisted = check.badifree == Verdict::kRebuild;
  // A page that is listed as a free node must not be offered for variable parts too.
  if (relisted && unused_pages_are_listed(check)) check.badrfree = Verdict::kRebuild;
  const bool sound_list_serves = check.badifree == Verdict::kSound && nodes_are_taken;
  if (check.varlen && (relisted || sound_list_serves)) unmark_unused_pages(check);
  if (relisted) makifree(check);
  check.rootlast = dictp->d_nextnode();
  if (check.badrfree == Verdict::kRebuild) makrfree(check);
  if (check.baddfree == Verdict::kRebuild) makdfree(check);
}

// From the highest number down, so that removals do not shift the numbers still to come.
void apply_index_verdicts(Check& check, const Repair& repair) {
  for (int n = static_cast<int>(check.idxflag.size()) - 1; n >= 1; --n) {
    if (repair.has_failed()) return;
    switch (check.idxflag[static_cast<std::size_t>(n)]) {
      case IndexVerdict::kKeep:
        break;
      case IndexVerdict::kDelete:
        delindex(check, n);
        break;
      case IndexVerdict::kRemake:
        makindex(check, n);
        break;
    }
  }
}

// The checks and repairs between opening and wind-up; false when they stopped early.
bool check_and_repair(Check& check, Repair& repair, Outcome& outcome) {
  if (!repair.prepare()) return false;
  const bool checked = run_checks(check);
  outcome.system_error = check.system_error;
  if (!checked || !repair.begin()) return false;
  if (check.supervisor != nullptr) check.supervisor->repair_mends(check);
  rebuild_free_lists(check);
  apply_index_verdicts(check, repair);
  tell_why_refused(check);
  return true;
}

bool guarded_check_and_repair(Check& check, Repair& repair, Outcome& outcome) {
  try {
    return check_and_repair(check, repair, outcome);
  } catch (const std::bad_alloc&) {
    check.found(Code::kNoMemory);
    repair.give_up(ENOMEM);
    return false;
  }
}

// Everything is on disk before the locks go, so that nobody reads a half-written pair. What iserrno
// still has of the checks is no failure of the repair.
void wind_up(Check& check, Repair& repair, bool whole) {
  if (check.options.sflag != 0) write_audit_node(check);
  isam::clear_errors();
  repair.end(whole);
  isam::lkopenlock(0);
  check.prterr();
  isam::freeopen(*openp);
}

void tell_summary(Check& check) {
  if (!check.sized) return check.listener.ends(nullptr);
  const Summary summary = summary_of(check);
  check.listener.ends(&summary);
}

void check_pair(Check& check, const std::string& name, Outcome& outcome) {
  isam::clear_errors();
  if (check.options.sflag != 0 && !resize_alone(check, name)) return;
  if (!open_pair(check, name)) return refuse_pair(check);
  if (!lock_and_load(check)) return;
  if (check.options.nflag == 0) Repair::remove_leftovers(name);
  Repair repair(check);
  outcome.whole = guarded_check_and_repair(check, repair, outcome);
  wind_up(check, repair, outcome.whole);
  outcome.repaired = repair.is_repaired();
  tell_summary(check);
}

}  // namespace

void cut_suffix(std::string& name) {
  if (name.ends_with(".dat") || name.ends_with(".idx")) name.resize(name.size() - kSuffixLength);
}

void tell_why_refused(Check& check) {
  isam::KeyChain chain;
  keydescr k{};
  if (chain.next(k) != isam::KeyChain::Step::kFound) {
    check.found(Code::kNoKeyDescription);
  }
  isam::clear_errors();
  const int width = dictp->d_dupsize();
  if (width != 2 && width != 4) {
    check.found(Code::kBadDuplicateWidth, {.found = width});
  }
  if (filep->geometry.maxreclen < filep->geometry.reclen) {
    check.found(Code::kMaximumTooSmall,
                {.found = filep->geometry.maxreclen, .expected = filep->geometry.reclen});
  }
}

bool run_checks(Check& check) {
  if (!ckdict(check) || !locale_matches(check) || !record_buffer_is_ready(check)) return false;
  ckdata(check);
  if (check.varlen) ckrpage(check);
  if (!ckindex(check)) return false;
  ckdfree(check);
  ckrfree(check);
  ckifree(check);
  return true;
}

Summary summary_of(const Check& check) {
  const std::int32_t nodes = check.idxmap.cntmap();
  const std::int32_t records = check.datmap.cntmap();
  return {.nodes_used = nodes,
          .nodes_free = check.idxlast - nodes,
          .records_used = records,
          .records_free = check.datlast - records,
          .varlen = check.varlen,
          .pages = check.rpgmap.cntmap(),
          .page_bytes_free = check.totalrpfree};
}

Outcome ckfile(std::string name, const Options& options, Listener& listener,
               Supervisor* supervisor) {
  cut_suffix(name);
  Check check(options, listener, supervisor);
  Outcome outcome;
  check_pair(check, name, outcome);
  outcome.findings = check.count;
  outcome.declined = check.declined;
  return outcome;
}

}  // namespace checker
