// isbegin: isbegin, iscommit and isrollback; what the end of a transaction does in each open.
#include <algorithm>
#include <utility>

#include "environment/settings.h"
#include "isam/base/errors.h"
#include "isam/calls/apply.h"
#include "isam/calls/call.h"
#include "isam/calls/closing.h"
#include "isam/calls/opening.h"
#include "isam/calls/process.h"
#include "isam/calls/scanahead.h"
#include "isam/calls/traced.h"
#include "isam/calls/transactions.h"
#include "isam/files/files.h"
#include "isam/files/locks.h"
#include "isam/log/logfile.h"
#include "isam/log/logread.h"
#include "isam/log/logwriter.h"
#include "isam/pool/pool.h"
#include "isam/records/datafile.h"
#include "isam/records/freelists.h"

namespace isam::txlog {
namespace {

// Calls `work` with each open in use.
template <typename Work>
void for_each_open(Work work) {
  for (int isfd = 0; isfd < first_unused_handle(); ++isfd) {
    if (Open* const open = open_of(isfd)) work(*open);
  }
}

bool commits_wait_for_disk() {
  static const bool wait = environment::leading_number("ISAM_LOG_SYNC") != 0;
  return wait;
}

// Logs that the transaction ends, which opens close with it, and what is owed: 0, or -1 with 121.
int mark_end(LogType mark) {
  int result = 0;
  for_each_open([&](Open& open) {
    if (result == 0 && open.kept && open.logged) result = logclose(open);
  });
  if (result != 0) return -1;
  const bool marks = logstate.begin == Begin::kWritten;
  if ((marks ? log_end(mark) : append_owed()) != 0) return -1;
  logstate.begin = Begin::kNone;
  return 0;
}

// How far freeing has come in the lists of an open.
struct Freed {
  std::size_t deleted = 0;
  std::size_t shortened = 0;
  bool in_part = false;  // freeing the storage of the next one failed, perhaps on the way

  [[nodiscard]] std::size_t records() const { return deleted + shortened; }
};

// How many records are freed at once: what they change, at most, has room in the pool until the
// file is written, for only then can it be taken back.
std::size_t most_at_once() {
  constexpr std::size_t kBesides = 4;  // pages: of the record, of free lists
  const auto pages = static_cast<std::size_t>(filep->geometry.maxreclen / filep->geometry.idxsize);
  return kMostAdded * 3 / 4 / (pages + kBesides);
}

// Frees up to `most` of what an open owes, up to the first failure, which iserrno tells.
Freed free_records(const Open& open, std::size_t most) {
  Freed freed;
  const std::size_t deleted = std::min(open.deleted.size(), most);
  for (; freed.deleted < deleted; ++freed.deleted) {
    const std::int32_t number = open.deleted[freed.deleted];
    freed.in_part = datatrunc(number) != 0;
    if (freed.in_part || freerec(number, FreeList::kRecords) != 0) return freed;
  }
  const std::size_t shortened = std::min(open.shortened.size(), most - deleted);
  for (; freed.shortened < shortened; ++freed.shortened) {
    freed.in_part = datatrunc(open.shortened[freed.shortened]) != 0;
    if (freed.in_part) return freed;
  }
  clear_errors();
  return freed;
}

void strike_off(std::vector<std::int32_t>& list, std::size_t first, std::size_t count) {
  const auto begin = list.begin() + static_cast<std::ptrdiff_t>(first);
  list.erase(begin, begin + static_cast<std::ptrdiff_t>(count));
}

// Strikes off the record at which the freeing stopped.
void strike_off_next(Open& open, const Freed& freed) {
  const bool deleted = freed.deleted < open.deleted.size();
  strike_off(deleted ? open.deleted : open.shortened, deleted ? freed.deleted : freed.shortened, 1);
}

// Strikes off the numbers that a failed call has freed after all: 0, or -1 with iserrno. When the
// list of free numbers is damaged, all are left to repair.
int check_numbers(Open& open) {
  if (!open.frees_again) return 0;
  if (drop_returned(open.deleted) == 0) {
    open.frees_again = false;
    return 0;
  }
  if (iserrno == kCorrupted) open.deleted.clear();
  return -1;
}

// Frees up to `most` records and ends the call. Strikes off what was freed, unless the call's
// failure takes that back; and the record at which it stopped, when that is damaged or freed in
// part. Where memory does not do for so many, all is taken back and `most` becomes smaller, for the
// next call; this is no failure.
int free_entered(Open& open, Call& call, std::size_t& most) {
  if (check_numbers(open) != 0) return call.end_failed();
  const Freed freed = free_records(open, std::min(most, most_at_once()));
  const bool failed = iserrno != 0;
  const bool damaged = iserrno == kCorrupted;  // and stays so
  const bool changes_stay = filep->locks.exclusives > 0 || filep->call.spilled;
  const int result = call.end();
  if (failed && (damaged || (changes_stay && freed.in_part))) strike_off_next(open, freed);
  if (result == 0 || (failed && changes_stay)) {
    strike_off(open.deleted, 0, freed.deleted);
    strike_off(open.shortened, 0, freed.shortened);
  }
  const std::size_t fewer = failed ? freed.records() : freed.records() / 2;
  const bool goes_on = result != 0 && iserrno == kNoMemory && !changes_stay && fewer > 0;
  if (goes_on) most = fewer;
  return goes_on ? 0 : result;
}

// A second attempt passes by what was damaged in the first, which is told all the same.
int free_owed_or_retry(Open& open) {
  FirstFailure failure;
  int result = free_owed(open);
  if (result != 0 && iserrno == kCorrupted) failure.note(result);
  if (result != 0 && owes_storage(open)) result = free_owed(open);
  failure.note(result);
  return failure.tell();
}

// What ends with the transaction in one open: 0, or -1 with iserrno when something could not be
// freed, unlocked or closed. A kept open that still owes storage stays kept.
int end_in_open(Open& open, bool commits) {
  isbatch(2);  // what another open holds in batch mode goes before this one becomes current
  open.transaction = {};
  open.file->locks.kept = false;
  if (commits) {
    open.committed = open.deleted.size();
  } else {
    open.deleted.resize(open.committed);
  }
  FirstFailure failure;
  if (owes_storage(open)) failure.note(free_owed_or_retry(open));
  const bool kept = open.kept;
  if (!kept && ((open.mode & 3) == ISINPUT || (open.mode & ISNOLOG) != 0)) return 0;
  make_current(open);
  const int released = release_transaction_locks();
  failure.note(kept && !owes_storage(open) ? close_in_use(open) : released);
  return failure.tell();
}

// Ends the transaction, whose mark is in the log.
int end_in_all_opens(bool commits) {
  FirstFailure failure;
  for_each_open([&](Open& open) { failure.note(end_in_open(open, commits)); });
  return failure.tell();
}

// A record that was added is gone: it is nobody's current record any more, whoever gets its number.
void leave_record(const OpenPair& file, std::int32_t number) {
  int left = file.usecount;
  for (int isfd = 0; isfd < nopens && left > 0; ++isfd) {
    Open* const open = open_of(isfd);
    if (open == nullptr || open->file != &file) continue;
    --left;
    leave_scan(*open);
    Position& position = open->position;
    const bool stands = (position.state & kHasCurrent) != 0 && position.ends == kOnItem;
    if (stands && position.item.recptr == number) position.state |= kCurrentDeleted;
  }
}

int undo_insert(const Image& image) {
  const Open* const open = open_of(image.open);
  if (lgdelete(image.open, image.number, nullptr, image.new_image) != 0) return -1;
  leave_record(*open->file, image.number);
  return 0;
}

int undo(const LogRecord& logged) {
  const std::optional<Image> image = logged.image();
  if (!image) return failed(kBadLogRecord);
  switch (logged.type()) {
    case LogType::kDelete:
      return lgputback(image->open, image->number, image->old_image);
    case LogType::kInsert:
      return undo_insert(*image);
    default:
      return lgupdate(image->open, image->number, image->old_image, image->new_image);
  }
}

// Undoes this process's changes from the newest back to the begin mark: 0, or -1 with iserrno.
int undo_all() {
  LogChain chain{logstate.fd, logstate.process, logstate.last};
  for (;;) {
    const LogRecord logged = chain.previous();
    if (!logged) return -1;
    switch (logged.type()) {
      case LogType::kBegin:
        return 0;
      case LogType::kDelete:
      case LogType::kInsert:
      case LogType::kUpdate:
        if (undo(logged) != 0) return -1;
        break;
      case LogType::kOpened:
        break;
      default:
        return failed_unless_set(kBadLogRecord);
    }
  }
}

int roll_back() {
  FirstFailure failure;
  logstate.lost = false;
  if (logstate.begin == Begin::kWritten) {
    logstate.in_rollback = true;
    txflag = kNotLogging;
    failure.note(undo_all());
    logstate.in_rollback = false;
  }
  txflag = kLogging;
  const int marked = mark_end(LogType::kRollback);
  failure.note(marked);
  if (marked != 0 && logstate.begin == Begin::kWritten) logstate.owes_rollback = true;
  logstate.begin = Begin::kNone;
  failure.note(end_in_all_opens(false));
  return failure.tell();
}

// What waits is appended when the turn at the log has begun that the mark shares: between the two
// the records that were held back are written, which waits for nobody.
int commit(std::optional<LogLock>& turn) {
  if (logstate.lost) return failed(kLogWrite);
  if (mark_end(LogType::kCommit) != 0) return -1;
  turn.reset();
  txflag = kLogging;
  FirstFailure failure;
  if (commits_wait_for_disk()) failure.note(sync_log());
  failure.note(end_in_all_opens(true));
  return failure.tell();
}

// Begins a public call, which needs a log: 0, or -1 with 122.
int start_call() {
  know_process();
  clear_errors();
  set_status("0000");
  if (txflag != kNotLogging) return 0;
  isstat1 = '9';
  return failed(kNoLog);
}

// Ends the transaction by `how`, unless `prepare` fails.
template <typename Prepare, typename How>
int end_transaction(Prepare prepare, How how) {
  if (start_call() != 0) return -1;
  if (txflag == kLogging) {
    isstat1 = '9';
    return failed(kNoBegin);
  }
  int result = prepare();
  if (result == 0) {
    isbatch(2);
    result = how();
    isbatch(2);
  }
  set_status(result == 0 ? "0000" : "9090");
  return result;
}

}  // namespace

int free_owed(Open& open) {
  open.deleted.resize(open.committed);
  std::size_t most = SIZE_MAX;
  int result = 0;
  while (result == 0 && owes_storage(open)) {
    Call call{isfd_of(open),
              {.access = Access::kToWrite, .keeps_auto_lock = true, .kept_too = true}};
    if (!call) return -1;
    result = free_entered(open, call, most);
    open.committed = open.deleted.size();
    isbatch(2);
  }
  if (result != 0) open.frees_again = true;
  return result;
}

}  // namespace isam::txlog

using namespace isam;
using namespace isam::txlog;

namespace {

int begin_call() {
  if (start_call() != 0) return -1;
  txflag = kInTransaction;
  if (logstate.begin == Begin::kNone) logstate.begin = Begin::kPending;
  return 0;
}

}  // namespace

extern "C" int isbegin(void) { return traced("isbegin", kNoNumber, begin_call); }

extern "C" int iscommit(void) {
  // What has no room in the log goes on waiting, so that the call can be given again.
  return traced("iscommit", kNoNumber, [] {
    std::optional<LogLock> turn;
    const auto append_waiting_first = [&turn] {
      if (log_waits()) {
        const KeepError keep;  // what appends may have the lock that is refused here
        turn.emplace();
      }
      return offer_waiting();
    };
    return end_transaction(append_waiting_first, [&turn] { return commit(turn); });
  });
}

extern "C" int isrollback(void) {
  const auto nothing = [] { return 0; };
  return traced("isrollback", kNoNumber, [=] { return end_transaction(nothing, roll_back); });
}
