// isreadmany: the public calls that read or write many records.
#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <utility>

#include "isam/calls/change.h"
#include "isam/calls/filelocale.h"
#include "isam/calls/process.h"
#include "isam/calls/reading.h"
#include "isam/calls/recordcalls.h"
#include "isam/calls/recorditems.h"
#include "isam/calls/recordset.h"
#include "isam/calls/scanahead.h"
#include "isam/calls/traced.h"
#include "isam/files/files.h"
#include "isam/keys/keytable.h"
#include "isam/tree/leafrun.h"

namespace isam {
namespace {

constexpr int kInPortions = -1;  // OfScan::mode that no step has

// Reading one record after another, as far as one entry of the library goes.
class Reading {
 public:
  Reading(recordset& set, ReadRequest request, bool after_end)
      : set_(set), request_(request), after_end_(after_end) {}

  // Reads on: false when the call has to wait for the record that is next.
  bool read_on(Cursor& cursor) {
    while (done_ < set_.count) {
      if (read_run(cursor)) continue;
      const ReadOutcome outcome = read_one(cursor);
      if (outcome == ReadOutcome::kMustWait) return false;
      if (outcome != ReadOutcome::kRead) break;
    }
    return true;
  }

  [[nodiscard]] int done() const { return done_; }
  [[nodiscard]] const ReadRequest& request() const { return request_; }

 private:
  // As a call of its own would, lets the lock of the record before go and keeps the position.
  ReadOutcome read_one(Cursor& cursor) {
    Byte* const record = place_of(set_, done_);
    if (begun_ && (openp->mode & ISAUTOLOCK) != 0 && release_locks() != 0) {
      return ReadOutcome::kFailed;
    }
    begun_ = true;
    cursor.bt.clear(kSameKeyNearby);
    if (positions_anew(request_.mode) && openp->key.nparts == 0) isrecnum = set_.numbers[done_];
    const ReadOutcome outcome = read_record(cursor, record, request_);
    if (outcome == ReadOutcome::kFailed) fail_to_read(cursor, request_.mode, after_end_);
    if (outcome != ReadOutcome::kRead) return outcome;
    note(1);
    set_.lengths[done_ - 1] = isreclen;
    set_.numbers[done_ - 1] = isrecnum;
    openp->position = cursor.bt;
    return outcome;
  }

  // Reads the records of the items that follow in the leaf, as long as nothing but to copy them is
  // to be done: false for none. Of an index with duplicates the call's last record is not among
  // them: its neighbour decides the status.
  bool read_run(Cursor& cursor) {
    const keydescr& k = openp->key;
    const int most = set_.count - done_ - ((k.flags & KF_DUPS) != 0 ? 1 : 0);
    const bool is_step = (cursor.bt.state & kCurrentRead) != 0 && cursor.bt.ends == kOnItem;
    if (most <= 0 || request_.lock || positions_anew(request_.mode) || !begun_ || !is_step) {
      return false;
    }
    const bool backwards = request_.mode == ReadMode::kPrevious;
    if (k.nparts > 0) {
      run_.gather(cursor, k, backwards ? Direction::kPrevious : Direction::kNext,
                  static_cast<std::size_t>(most));
      return read_items(cursor, run_.records());
    }
    const std::int32_t here = cursor.bt.item.recptr;
    const std::int32_t left = backwards ? here - 1 : dictp->d_nextdata() - here;
    std::array<std::int32_t, kMostItems> numbers;
    const auto count =
        static_cast<std::size_t>(std::clamp(std::min(most, left), 0, static_cast<int>(kMostItems)));
    for (std::size_t i = 0; i < count; ++i) {
      const auto distance = static_cast<std::int32_t>(i) + 1;
      numbers[i] = here + (backwards ? -distance : distance);
    }
    return read_items(cursor, {numbers.data(), count});
  }

  bool read_items(Cursor& cursor, std::span<const std::int32_t> numbers) {
    const std::size_t count = dataread_many(numbers, place_of(set_, done_), set_.lengths + done_);
    if (count == 0 || !stand_on(cursor, numbers, count - 1)) return false;
    std::copy_n(numbers.data(), count, set_.numbers + done_);
    note(static_cast<int>(count));
    isreclen = set_.lengths[done_ - 1];
    isrecnum = cursor.bt.item.recptr;
    openp->position = cursor.bt;
    return true;
  }

  // Comes to stand where so many moves would: false with the position as before.
  bool stand_on(Cursor& cursor, std::span<const std::int32_t> numbers, std::size_t index) const {
    if (openp->key.nparts == 0) {
      cursor.bt.item.recptr = numbers[index];
      btnumber(cursor, numbers[index]);
    } else {
      const KeepError keep;  // a move meets it again
      if (run_.stand_on(cursor, openp->key, index) != 0) {
        cursor.bt = openp->position;
        return false;
      }
      take_found_item(cursor);
    }
    cursor.bt.clear(kCurrentDeleted | kSameKeyNearby);
    return true;
  }

  void note(int count) {
    done_ += count;
    after_end_ = false;
  }

  recordset& set_;
  ReadRequest request_;
  bool after_end_;      // the call or record before has met the end
  bool begun_ = false;  // a record has been read in this call
  int done_ = 0;
  LeafRun run_;
};

enum class Wanted { kNeighbours, kByKey };

// What a call is asked for: 0, or -1 with 102.
int parse_many(const recordset* set, int mode, Wanted wanted, ReadRequest& request) {
  if (check_set(set, true) != 0 || parse_read(set->records, mode, request) != 0) return -1;
  const bool is_step = request.mode == ReadMode::kNext || request.mode == ReadMode::kPrevious;
  const bool is_by_key = request.mode >= ReadMode::kEqual;
  return (wanted == Wanted::kNeighbours ? is_step : is_by_key) ? 0 : failed(kBadArgument);
}

// Gives a portion that was copied before: false where the call has to enter.
bool take_portion(int isfd, const recordset* set, int mode) {
  know_process();
  Open* const open = open_of(isfd);
  if (open == nullptr || open->kept || batchflag != 0 || set == nullptr) return false;
  ScanAhead* const ahead = open->scan.ahead.get();
  if (ahead == nullptr || !ahead->portions.serves(set->count, mode, *open->file)) return false;
  make_current(*open);
  if (check_locale() != 0 || check_set(set, true) != 0) return false;
  note_use();
  clear_errors();
  ahead->portions.take(*set, *open);
  return true;
}

// How many portions such as this one the last calls of an open have read.
int portions_before(int isfd, const recordset* set, int mode) {
  const Open* const open = open_of(isfd);
  const bool knows = open != nullptr && open->scan.ahead && set != nullptr;
  return knows ? open->scan.ahead->portions.row(set->count, mode) : 0;
}

// Reads the portions that the next calls of a scan will ask for, behind the one that the call has
// read to its end, and goes back to that.
void read_ahead(Cursor& cursor, const recordset& set, ReadRequest request, int row_before) {
  if (request.lock || batchflag != 0 || is_alone() || !shows_writes(filep->index)) return;
  ScanAhead* const ahead = scan_ahead();
  if (ahead == nullptr) return;
  PortionsAhead& portions = ahead->portions;
  openp->scan.steps = 1;  // so that the next call that enters tells
  openp->scan.mode = kInPortions;
  if (!portions.begin(set.count, static_cast<int>(request.mode), row_before)) return;
  const KeepError keep;
  const Cursor here = cursor;
  const auto number = isrecnum;
  const auto length = isreclen;
  while (portions.has_room()) {
    recordset next = portions.place();
    Reading reading{next, request, false};
    if (!reading.read_on(cursor) || reading.done() < next.count) break;
    portions.add(cursor);
  }
  portions.end(*filep);
  cursor = here;
  isrecnum = number;
  isreclen = length;
}

int read_many(int isfd, recordset* set, int mode, Wanted wanted) {
  const bool after_end = iserrno == kEndOfFile;  // of the call before
  if (wanted == Wanted::kNeighbours && take_portion(isfd, set, mode)) return set->count;
  const int row = portions_before(isfd, set, mode);  // asked first: entering ends the row
  std::optional<Reading> reading;
  while (true) {
    Call call{isfd, {.access = Access::kToRead, .shared = true}};
    if (!call) return reading ? reading->done() : refused_access('7');
    if (!reading) {
      ReadRequest request{};
      if (parse_many(set, mode, wanted, request) != 0) return call.end();
      reading.emplace(*set, request, after_end);
    }
    if (reading->read_on(call.cursor())) {
      if (reading->done() == set->count && is_step(mode)) {
        read_ahead(call.cursor(), *set, reading->request(), row);
      }
      static_cast<void>(call.end());
      return reading->done();
    }
    if (wait_outside(call) != 0) return reading->done();
  }
}

// What becomes of the records of a set.
enum class Wish { kAdd, kRewrite };

// Adding or rewriting records. What an open shared with other processes changes goes to the files
// in portions, for to write many records costs little more than to write one. When one of a portion
// is refused, the portion is taken back and made again as far as that: nothing stays of a change
// that is refused. Rewrites of a transaction wait for each other instead (isam/calls/heldback).
class Writing {
 public:
  Writing(recordset& set, Wish wish) : set_(set), wish_(wish) {}

  // How many records were written; what the call leaves in iserrno belongs to the next one.
  int run(Call& call) {
    write_portions(call.cursor());
    filep->call.more_follow = false;
    if (call.end() == 0) settle();
    if (done_ < set_.count) take_length(done_);  // as a refused iswrite leaves it
    return done_;
  }

 private:
  void write_portions(Cursor& cursor) {
    int portion = longest_portion();
    while (true) {
      const int wanted = std::min(portion, set_.count - done_);
      for (made_ = 0; made_ < wanted && make(cursor);) ++made_;
      if (made_ < wanted) {
        if (made_ == 0 || !take_back(portion)) return;
      } else {
        if (done_ + made_ == set_.count) return;
        end_change();
        if (iserrno != 0) return;
        settle();
      }
      if (begin_change() != 0) return;
    }
  }

  // One record is the portion where each is written late, or where more than the files would have
  // to be taken back: the log, the audit trail, locks. Else what changes has room in the pool.
  [[nodiscard]] int longest_portion() const {
    constexpr std::size_t kMost = 64;
    constexpr std::size_t kMostPages = 256;
    const bool alone =
        is_alone() || txlog::logs_changes() || dictp->d_audits() || (openp->mode & ISAUTOLOCK) != 0;
    const Keys* const keys = alone ? nullptr : file_keys();
    if (keys == nullptr) return 1;
    const std::size_t items = (wish_ == Wish::kAdd ? 1 : 2) * keys->size();
    const std::size_t pages =
        items + static_cast<std::size_t>(filep->geometry.maxreclen) / kPageSize + 2;
    return static_cast<int>(std::clamp<std::size_t>(kMostPages / pages, 1, kMost));
  }

  // Adds or rewrites the next record: false with iserrno.
  bool make(Cursor& cursor) {
    const int index = done_ + made_;
    take_length(index);
    const int length = isxgetlen();
    if (length < 0) return false;
    const ConstBytes record{place_of(set_, index), static_cast<std::size_t>(length)};
    if (wish_ == Wish::kRewrite) return rewrite(cursor, index, record);
    const std::int32_t number = wrtrecord(cursor, record, Current::kStays);
    if (number < 0) return false;
    set_.numbers[index] = number;
    return true;
  }

  [[nodiscard]] bool rewrite(Cursor& cursor, int index, ConstBytes record) const {
    filep->call.is_of_many = true;
    filep->call.more_follow = index + 1 < set_.count;
    const FoundRecord found = getcurrent(set_.numbers[index]);
    if (found.number >= 0) {
      return rewrecord(cursor, found.number, found.bytes, record, Current::kStays) == 0;
    }
    cursor.bt = openp->position;
    return false;
  }

  // The record behind those made was refused. True when these are to be made again, as the next
  // portion; false when they stay, since some of their pages have been written.
  bool take_back(int& portion) {
    const std::int32_t reason = iserrno;
    const bool stays = filep->call.spilled;
    end_change();
    portion = made_;
    if (stays && iserrno == reason) settle();
    made_ = 0;
    return !stays;
  }

  // As the application would, before it calls iswrite or isrewrec.
  void take_length(int index) const {
    if (filep->geometry.varlen) isreclen = set_.lengths[index];
  }

  // What was made stays.
  void settle() {
    done_ += std::exchange(made_, 0);
    if (done_ > 0) isrecnum = set_.numbers[done_ - 1];
  }

  recordset& set_;
  Wish wish_;
  int done_ = 0;
  int made_ = 0;  // behind these, in the change under way
};

int write_many(int isfd, recordset* set, Wish wish) {
  const bool rewrites = wish == Wish::kRewrite;
  Call call{isfd, {.access = Access::kToWrite, .holds_on = rewrites}};
  if (!call) return refused_access(rewrites ? '9' : '8');
  if (check_set(set, filep->geometry.varlen) != 0) return call.end();
  return Writing{*set, wish}.run(call);
}

}  // namespace
}  // namespace isam

using namespace isam;

extern "C" int isreadmany(int isfd, struct recordset* set, int mode) {
  return traced("isreadmany", isfd, set, Carries::kReceivesMany,
                [=] { return read_many(isfd, set, mode, Wanted::kNeighbours); });
}

extern "C" int isfetchmany(int isfd, struct recordset* set, int mode) {
  return traced("isfetchmany", isfd, set, Carries::kKeysAndReceivesMany,
                [=] { return read_many(isfd, set, mode, Wanted::kByKey); });
}

extern "C" int iswritemany(int isfd, struct recordset* set) {
  return traced("iswritemany", isfd, set, Carries::kRecords,
                [=] { return write_many(isfd, set, Wish::kAdd); });
}

extern "C" int isrewritemany(int isfd, struct recordset* set) {
  return traced("isrewritemany", isfd, set, Carries::kRecords,
                [=] { return write_many(isfd, set, Wish::kRewrite); });
}
