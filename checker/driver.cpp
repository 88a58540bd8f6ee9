#include "checker/driver.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "checker/checks.h"
#include "checker/dialogue.h"
#include "checker/findings.h"
#include "checker/repair.h"
#include "checker/resize.h"
#include "isam/buffers.h"
#include "isam/errors.h"
#include "isam/files.h"
#include "isam/frame.h"
#include "isam/freelists.h"
#include "isam/keychain.h"
#include "isam/locks.h"
#include "locale/collation.h"
#include "locale/name.h"

namespace checker {
namespace {

using isam::dictp;
using isam::filep;
using isam::openp;

constexpr std::size_t kSuffixLength = 4;

void cut_suffix(std::string& name) {
  if (name.ends_with(".dat") || name.ends_with(".idx")) name.resize(name.size() - kSuffixLength);
}

// Opens the pair and makes it current; false when that failed.
bool open_pair(const std::string& name) {
  isam::OpenRecord* open = isam::allocopen();
  if (open == nullptr) return false;
  const bool changes_nothing = options.nflag != 0;
  const int access = changes_nothing ? ISINPUT : ISINOUT;
  open->file = isam::allocfile(
      name, access, changes_nothing ? isam::IndexAccess::kOrToRead : isam::IndexAccess::kToWrite);
  if (open->file == nullptr) {
    isam::freeopen(*open);
    return false;
  }
  open->mode = access + (open->file->idxmode == O_RDONLY ? ISMANULOCK : ISEXCLLOCK);
  open->file->mark = isam::MarkState::kUnneeded;
  isam::make_current(*open);
  return true;
}

bool index_can_be_written() { return filep->idxmode != O_RDONLY; }

// Takes the open lock, so that no other process uses the pair, or none changes it where nothing
// more is possible. False with iserrno set.
bool lock_pair() {
  if (!index_can_be_written()) return isam::lkreading() == 0;
  if (isam::lksemaphore(isam::Semaphore::kExclusive) != 0) return false;
  const bool locked = isam::lkopenlock(ISEXCLLOCK) == 0;
  isam::lksemaphore(isam::Semaphore::kRelease);
  return locked;
}

void give_up_pair() {
  prterr();
  isam::freeopen(*openp);
}

// Takes the pair for this process alone and reads its dictionary.
bool lock_and_load() {
  const bool locked = lock_pair();
  if (locked && isam::dictread() == 0) {
    filep->stamp = openp->stamp = dictp->d_modcount();
    return true;
  }
  if (locked) isam::lkopenlock(0);
  give_up_pair();
  return false;
}

int refuse_pair() {
  isam::clear_errors();
  err(Message::kCannotOpen);
  return -1;
}

// Changes the node size while no other process has the pair open.
int resize_alone(const std::string& name) {
  if (!can_be_kept(name)) return -1;
  if (!open_pair(name)) return refuse_pair();
  const bool locked = lock_pair();
  const int result = locked ? resize(name) : -1;
  if (locked) isam::lkopenlock(0);
  give_up_pair();
  return result;
}

// Whether the client's locale orders what a file of the other's name holds: a client's name that
// the file's begins with does, but the one that stands for no locale is no such beginning.
bool collation_matches(std::string_view client, std::string_view stored) {
  if (client.empty() || !stored.starts_with(client)) return false;
  if (client != locale::kByteOrder) return true;
  const std::string_view rest = stored.substr(client.size());
  const bool is_padding = rest.find_first_not_of(' ') == std::string_view::npos;
  return is_padding || rest[0] == '.' || rest[0] == '@';
}

bool locale_matches() {
  if (!dictp->d_collate()) return true;
  if (locale::chkulxinit() != 0) {
    isam::failed(isam::kLocaleInvalid);
    return false;
  }
  const std::string_view client = locale::file_system_name();
  const std::string_view stored{dictp->d_collname(),
                                ::strnlen(dictp->d_collname(), isam::kCollationNameSize)};
  if (collation_matches(client, stored)) return true;
  pnewline(1);
  print_line(Message::kLocaleMismatch);
  print(Message::kFileCollation, {stored});
  pnewline(2);
  return false;
}

bool record_buffer_is_ready() {
  if (isam::mktemprec(std::max(filep->maxreclen, filep->reclen)) == 0) return true;
  err(Message::kNoMemory);
  return false;
}

// Whether a repair that was agreed to takes nodes from the free list.
bool nodes_will_be_taken() {
  return findings.baddfree == Verdict::kRebuild ||
         std::ranges::count(findings.idxflag, IndexVerdict::kRemake) > 0;
}

void rebuild_free_lists() {
  const bool nodes_are_taken = nodes_will_be_taken();
  if (findings.badifree != Verdict::kRebuild && nodes_are_taken && !node_list_is_declined() &&
      !mark_node_list() && findings.badifree == Verdict::kSound) {
    findings.badifree = Verdict::kRebuild;  // it has a node that is too full to be drawn from
  }
  const bool relisted = findings.badifree == Verdict::kRebuild;
  // A page that is listed as a free node must not be offered for variable parts too.
  if (relisted && unused_pages_are_listed()) findings.badrfree = Verdict::kRebuild;
  const bool drawn_from = findings.badifree == Verdict::kSound && nodes_are_taken;
  if (findings.varlen && (relisted || drawn_from)) unmark_unused_pages();
  if (relisted) makifree();
  findings.rootlast = dictp->d_nextnode();
  if (findings.badrfree == Verdict::kRebuild) makrfree();
  if (findings.baddfree == Verdict::kRebuild) makdfree();
}

// From the highest number down, so that removals do not shift the numbers still to come.
void settle_indexes() {
  for (int n = static_cast<int>(findings.idxflag.size()) - 1; n >= 1; --n) {
    if (Repair::has_failed()) return;
    switch (findings.idxflag[static_cast<std::size_t>(n)]) {
      case IndexVerdict::kKeep:
        break;
      case IndexVerdict::kDelete:
        delindex(n);
        break;
      case IndexVerdict::kRemake:
        makindex(n);
        break;
    }
  }
}

// What no check tests and no repair mends, though it makes every program refuse the pair.
void tell_why_refused() {
  isam::KeyChain chain;
  keydescr k{};
  if (chain.next(k) != isam::KeyChain::Step::kFound) {
    remark("no key description is left: programs cannot open the pair; restore the index file");
  }
  isam::clear_errors();
  const int width = dictp->d_dupsize();
  if (width != 2 && width != 4) {
    remark("bad width of duplicate numbers in the dictionary: programs cannot open the pair");
  }
  if (filep->maxreclen < filep->reclen) {
    remark("maximum record size below the record size: programs cannot open the pair");
  }
}

// The checks and repairs between opening and wind-up; false when they stopped early.
bool check_and_repair(Repair& repair) {
  if (!ckdict() || !locale_matches() || !record_buffer_is_ready()) return false;
  ckdata();
  if (findings.varlen) ckrpage();
  if (!ckindex()) return false;
  ckdfree();
  ckrfree();
  ckifree();
  if (!repair.begin()) return false;
  rebuild_free_lists();
  settle_indexes();
  tell_why_refused();
  return true;
}

bool guarded_check_and_repair(Repair& repair) {
  try {
    return check_and_repair(repair);
  } catch (const std::bad_alloc&) {
    err(Message::kNoMemory);
    repair.give_up(ENOMEM);
    return false;
  }
}

// Everything is on disk before the open lock goes, so that nobody reads a half-written pair.
void wind_up(Repair& repair, bool whole) {
  if (options.sflag != 0) write_audit_node();
  isam::clear_errors();
  repair.end(whole);
  isam::lkopenlock(0);
  prterr();
  isam::freeopen(*openp);
}

void print_summary() {
  const std::int32_t nodes = findings.idxmap.cntmap();
  const std::int32_t records = findings.datmap.cntmap();
  print(Message::kNodeSummary, {std::int64_t{nodes}, std::int64_t{findings.idxlast - nodes}});
  print(Message::kRecordSummary, {std::int64_t{records}, std::int64_t{findings.datlast - records}});
  if (findings.varlen) {
    const std::int32_t pages = findings.rpgmap.cntmap();
    pnewline(1);
    print(Message::kStoragePages, {std::int64_t{pages}});
    if (pages != 0) {
      pnewline(1);
      print(Message::kStorageFree, {findings.totalrpfree, findings.totalrpfree / pages});
    }
  }
  pnewline(2);
}

}  // namespace

int ckfile(std::string name) {
  cut_suffix(name);
  isam::clear_errors();
  tally = {};
  if (options.sflag != 0 && resize_alone(name) != 0) return -1;
  if (!open_pair(name)) return refuse_pair();
  if (!lock_and_load()) return -1;
  findings.totalrpfree = 0;  // of a pair that the page check does not come to
  if (options.nflag == 0) Repair::remove_leftovers(name);
  Repair repair;
  const bool done = guarded_check_and_repair(repair);
  wind_up(repair, done);
  print_summary();
  return done ? 0 : -1;
}

}  // namespace checker
