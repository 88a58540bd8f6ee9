#include "isam/log/logfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <new>
#include <optional>
#include <utility>

#include "common/holders.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/files/copies.h"
#include "isam/files/files.h"
#include "isam/files/locks.h"

namespace isam::txlog {

LogState logstate;

namespace {

// The longest piece: records that wait, as long as six of the greatest length, an opposite that is
// owed, and up to three short ones.
constexpr std::size_t kLongestPiece = 7 * log_record::kGreatest + 512;

// How a record is linked, once it is known where it goes.
enum class Stamp : std::uint8_t {
  kOpposite,  // as the image that it takes back
  kLinked,
  kUnlinked,
};

std::vector<Byte> piece;    // what is being appended; kept for its memory
std::vector<Stamp> stamps;  // of its records
bool waits = false;         // it is complete, and not in the log yet
LeadIn waiting_lead;        // what of a lead-in it has then
std::vector<Byte> owed;     // the opposite of a change not made, while the log still lacks it
std::int64_t end_we_left;   // end of the log when this process last appended or cut something

// The record logged last. `piece` ends with it, until the next piece begins.
struct LoggedLast {
  std::int64_t offset = 0;
  std::size_t start = 0;  // in `piece`
  Link before;            // the process's last linked record before it
} last;

int lock_depth = 0;         // how many hold the log's lock within each other
bool end_is_known = false;  // under this lock something was appended or cut: the log ends there
LogHold* holder = nullptr;  // what takes note of what is appended

int write_magic(int fd) {
  Byte magic[kMagicSize];
  common::stlong(static_cast<std::int32_t>(kLogMagic), magic);
  if (common::write_at(fd, magic, 0) == 0) return 0;
  common::cut_file(fd, 0);  // a file with a part of the magic would be refused from then on
  return failed(kLogWrite);
}

int check_magic(int fd) {
  Byte magic[kMagicSize];
  if (common::read_at(fd, magic, 0) < kMagicSize) return failed(kLogRead);
  const bool known = static_cast<std::uint32_t>(common::ldlong(magic)) == kLogMagic;
  return known ? 0 : failed(kBadLogMagic);
}

// Whether a whole record ends at `end`.
bool record_ends_at(std::int64_t end) {
  if (end == kMagicSize) return true;
  Byte length_bytes[2];
  if (common::read_at(logstate.fd, length_bytes, end - log_record::kTrailer) !=
      log_record::kTrailer) {
    return false;
  }
  const int length = common::ldword(length_bytes);
  if (length < log_record::kSmallest || length > end - kMagicSize) return false;
  Byte header[log_record::kProcess];
  if (common::read_at(logstate.fd, header, end - length) != log_record::kProcess) return false;
  const KeepError keep;
  return common::ldword(header) == length &&
         getlogtype(&header[log_record::kType]) != LogType::kUnknown;
}

// The end of the last whole record, looking on from `offset`, where a record begins.
std::int64_t end_of_whole_records(std::int64_t offset, std::int64_t end) {
  Byte length_bytes[2];
  while (end - offset >= log_record::kSmallest) {
    if (common::read_at(logstate.fd, length_bytes, offset) != log_record::kTrailer) break;
    const int length = common::ldword(length_bytes);
    if (length < log_record::kSmallest || length > end - offset) break;
    offset += length;
  }
  return offset;
}

// Where the next record goes, under the log lock; -1 when the log cannot be appended to.
std::int64_t end_of_log() {
  if (end_is_known) return end_we_left;
  const std::int64_t end = ::lseek(logstate.fd, 0, SEEK_END);
  if (end < kMagicSize) return -1;
  if (end == end_we_left || record_ends_at(end)) return end;
  // What a killed process left of its piece is cut off. What is longer than a piece can be is not
  // that: the log is damaged.
  const bool grown = end_we_left >= kMagicSize && end_we_left <= end;
  const std::int64_t whole = end_of_whole_records(grown ? end_we_left : kMagicSize, end);
  if (whole != end && end - whole > std::int64_t{kLongestPiece}) return -1;
  return common::cut_file(logstate.fd, whole) == 0 ? whole : -1;
}

std::int32_t now() { return static_cast<std::int32_t>(std::time(nullptr)); }

// Writes `piece` at the end: where it begins, or -1 with 121 and nothing written. `fill_in(end)`
// stamps the records of the piece, which it could not do before it knew where they go.
template <typename FillIn>
std::int64_t append(FillIn fill_in) {
  const LogLock lock;
  const std::int64_t end = lock.held() ? end_of_log() : -1;
  if (end < 0) return failed(kLogWrite);
  fill_in(end);
  if (common::write_at(logstate.fd, piece, end) != 0) {
    end_is_known = false;
    common::cut_file(logstate.fd, end);
    return failed(kLogWrite);
  }
  end_we_left = end + static_cast<std::int64_t>(piece.size());
  end_is_known = true;
  return end;
}

void stamp(std::size_t at, Link previous, std::int32_t time) {
  stamp_record(&piece[at], logstate.process, logstate.user, time, previous);
}

// What must go before a record about `open`, which may be null.
LeadIn lead_in_for(Open* open) {
  const bool is_new = open != nullptr && !open->logged;
  return {.opposite = !owed.empty(),
          .rollback = logstate.owes_rollback,
          .begin = logstate.begin == Begin::kPending,
          .opens = is_new ? open : nullptr};
}

// Puts a lead-in behind what waits, if anything does, or begins a piece with it: where it ends.
std::size_t start_piece(const LeadIn& lead) {
  if (!waits) {
    piece.clear();
    stamps.clear();
  }
  if (lead.opposite) {
    piece.insert(piece.end(), owed.begin(), owed.end());
    stamps.push_back(Stamp::kOpposite);
  }
  const auto add_mark = [](LogType mark) {
    static_cast<void>(LogRecordBuilder{piece, mark}.finish());
    stamps.push_back(Stamp::kLinked);
  };
  if (lead.rollback) add_mark(LogType::kRollback);
  if (lead.begin) add_mark(LogType::kBegin);
  if (lead.opens != nullptr) {
    LogRecordBuilder builder{piece, LogType::kOpened};
    builder.put_word(isfd_of(*lead.opens));
    builder.put_word(lead.opens->file->geometry.varlen ? 1 : 0);
    builder.put_name(lead.opens->file->name);
    static_cast<void>(builder.finish());
    stamps.push_back(Stamp::kUnlinked);
  }
  return piece.size();
}

int length_at(std::size_t at) { return common::ldword(&piece[at + log_record::kLength]); }

// The log has a lead-in, or will have it.
void note_lead_in(const LeadIn& lead) {
  if (lead.begin) logstate.begin = Begin::kWritten;
  if (lead.opens != nullptr) lead.opens->logged = true;
}

// Appends the piece, whose records are stamped one after the other: where it begins, or -1 with
// 121.
std::int64_t append_piece() {
  Link chain = logstate.last;
  const std::int64_t begin = append([&](std::int64_t at) {
    const std::int32_t time = now();
    std::size_t here = 0;
    for (const Stamp how : stamps) {
      const Link itself{at + static_cast<std::int64_t>(here), length_at(here)};
      last = {.offset = itself.offset, .start = here, .before = chain};
      // The opposite has the same link as the image that it takes back: a recovery knows the two by
      // it, and how the transaction ends decides about both. No later record is linked to the
      // opposite: a rollback passes it by.
      const Link previous = how == Stamp::kOpposite ? LogRecord{owed}.previous()
                            : how == Stamp::kLinked ? std::exchange(chain, itself)
                                                    : Link{};
      stamp(here, previous, time);
      here += static_cast<std::size_t>(itself.length);
    }
  });
  if (begin < 0) return -1;
  waits = false;
  logstate.last = chain;
  owed.clear();
  logstate.owes_rollback = false;
  return begin;
}

void forget_all() {
  logstate = LogState{};
  owed.clear();
  waits = false;
}

// Device and inode of the log that is open.
struct stat log_identity;

// Whether another copy of the library in this process has the log open. Both would write under one
// process number, and nobody could tell their transactions apart.
bool is_anothers(const char* path) {
  struct stat status {};
  return common::system_calls().stat(path, &status) == 0 &&
         another_copy_has(status.st_dev, status.st_ino);
}

void begin_in_own_name(int fd) {
  forget_all();
  logstate.fd = fd;
  logstate.process = ::getpid();
  logstate.user = static_cast<int>(::getuid() & 0xFFFF);
  end_we_left = 0;
  note_open(log_identity.st_dev, log_identity.st_ino);
}

}  // namespace

int open_log(const char* path) {
  if (path != nullptr && is_anothers(path)) return failed(kLogOpen);
  common::FileHold fd{path == nullptr ? -1 : common::open_file(path, O_RDWR)};
  if (!fd && path != nullptr && errno == EMFILE) {
    vclose();
    fd = common::FileHold{common::open_file(path, O_RDWR)};
  }
  if (!fd) return failed(kLogOpen);
  std::int64_t size = 0;
  if (common::find_size(fd.get(), size) != 0) return failed(kLogRead);
  if ((size == 0 ? write_magic(fd.get()) : check_magic(fd.get())) != 0) return -1;
  if (common::system_calls().fstat(fd.get(), &log_identity) != 0) return failed(kLogRead);
  begin_in_own_name(fd.release());
  return 0;
}

void take_log_over() {
  if (!log_is_open()) return;
  const bool suspended = logstate.is_suspended;
  note_closed(log_identity.st_dev, log_identity.st_ino);
  begin_in_own_name(logstate.fd);
  logstate.is_suspended = suspended;
  logstate.suspended = kLogging;
  txflag = suspended ? kNotLogging : kLogging;
}

int close_log() {
  if (!log_is_open()) return failed(kNotOpen);
  const int fd = logstate.fd;
  forget_all();
  note_closed(log_identity.st_dev, log_identity.st_ino);
  return common::system_calls().close(fd) == 0 ? 0 : failed_system(errno);
}

int sync_log() { return ::fdatasync(logstate.fd) == 0 ? 0 : failed_system(errno); }

int lkloglog(bool take) { return lock_whole_file(logstate.fd, take); }

LogPiece::LogPiece(Open* open, LogType type, Linked linked)
    : lead_(lead_in_for(open)),
      records_before_(waits ? stamps.size() : 0),
      before_(waits ? piece.size() : 0),
      start_(start_piece(lead_)),
      record_(piece, type) {
  stamps.push_back(linked == Linked::kYes ? Stamp::kLinked : Stamp::kUnlinked);
}

int LogPiece::writelog(When when) {
  const bool may_wait = when == When::kMayWait && owed.empty() && !logstate.owes_rollback;
  if (!record_.finish()) return fail();
  if (may_wait) {
    if (!std::exchange(waits, true)) waiting_lead = {};
    if (lead_.begin) waiting_lead.begin = true;
    if (lead_.opens != nullptr) waiting_lead.opens = lead_.opens;
    note_lead_in(lead_);
    logstate.holds_back = true;
    return 0;
  }
  const std::int64_t begin = append_piece();
  if (begin < 0) return fail();
  note_lead_in(lead_);
  if (holder != nullptr && holder->start_ == LogHold::kNothing) {
    holder->start_ = begin + static_cast<std::int64_t>(start_);
  }
  return 0;
}

// What waited before goes on waiting.
int LogPiece::fail() const {
  piece.resize(before_);
  stamps.resize(records_before_);
  return failed(kLogWrite);
}

bool log_waits() { return waits; }

// Behind it comes one that waits for nothing.
bool one_more_may_wait() {
  return !waits || piece.size() + 2 * std::size_t{log_record::kGreatest} <= kLongestPiece;
}

int offer_waiting() { return !waits || append_piece() >= 0 ? 0 : -1; }

int append_waiting() {
  if (offer_waiting() == 0) return 0;
  waits = false;
  if (waiting_lead.begin) logstate.begin = Begin::kPending;
  if (waiting_lead.opens != nullptr) waiting_lead.opens->logged = false;
  return -1;
}

int append_owed() {
  const LeadIn lead{.opposite = !owed.empty(), .rollback = logstate.owes_rollback};
  if (!lead.opposite && !lead.rollback) return 0;
  start_piece(lead);
  return append_piece() < 0 ? -1 : 0;
}

void take_back_logged() {
  const KeepError keep;
  const LogLock lock;
  logstate.last = last.before;
  // From here on `piece` is that record alone.
  piece.erase(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(last.start));
  const std::int64_t end = last.offset + static_cast<std::int64_t>(piece.size());
  if (lock.held() && ::lseek(logstate.fd, 0, SEEK_END) == end &&
      common::cut_file(logstate.fd, last.offset) == 0) {
    end_we_left = last.offset;
    return;
  }
  if (!make_opposite(piece)) return;
  const Link previous = LogRecord{piece}.previous();
  if (append([&](std::int64_t) { stamp(0, previous, now()); }) < 0) owed.swap(piece);
}

LogLock::LogLock() : held_(lock_depth > 0 || lkloglog(true) == 0) {
  if (held_) ++lock_depth;
}

LogLock::~LogLock() {
  if (!held_ || --lock_depth > 0) return;
  const KeepError keep;
  end_is_known = false;
  lkloglog(false);
}

LogHold::LogHold() {
  if (held()) {
    holder = this;
  } else {
    failed(kLogWrite);
  }
}

LogHold::~LogHold() {
  if (!held()) return;
  holder = nullptr;
  if (start_ != kNothing && common::cut_file(logstate.fd, start_) == 0) end_we_left = start_;
}

}  // namespace isam::txlog
