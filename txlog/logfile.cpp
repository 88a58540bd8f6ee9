#include "txlog/logfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <new>

#include "common/holders.h"
#include "common/io.h"
#include "isam/errors.h"
#include "isam/files.h"
#include "isam/locks.h"

namespace isam::txlog {

LogState logstate;

namespace {

constexpr std::size_t kWindow = 65536;
// The longest piece: a record, and up to three short ones before it.
constexpr std::int64_t kLongestPiece = record::kGreatest + 512;

std::vector<Byte> piece;   // what is being appended; kept for its memory
std::int64_t end_we_left;  // end of the log when this process last looked
Link before_image;         // the chain before the image logged last
std::size_t image_start;   // ... and where its record begins in `piece`

int write_magic(int fd) {
  Byte magic[kMagicSize];
  common::stlong(static_cast<std::int32_t>(kLogMagic), magic);
  return common::write_at(fd, magic, 0) == 0 ? 0 : failed(kLogWrite);
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
  if (common::read_at(logstate.fd, length_bytes, end - record::kTrailer) != record::kTrailer) {
    return false;
  }
  const int length = common::ldword(length_bytes);
  if (length < record::kSmallest || length > end - kMagicSize) return false;
  Byte header[record::kProcess];
  if (common::read_at(logstate.fd, header, end - length) != record::kProcess) return false;
  const KeepError keep;
  return common::ldword(header) == length &&
         getlogtype(&header[record::kType]) != LogType::kUnknown;
}

// The end of the last whole record, looking on from `offset`, where a record begins.
std::int64_t end_of_whole_records(std::int64_t offset, std::int64_t end) {
  Byte length_bytes[2];
  while (end - offset >= record::kSmallest) {
    if (common::read_at(logstate.fd, length_bytes, offset) != record::kTrailer) break;
    const int length = common::ldword(length_bytes);
    if (length < record::kSmallest || length > end - offset) break;
    offset += length;
  }
  return offset;
}

// Where the next record goes, under the log lock; -1 when the log cannot be appended to.
std::int64_t end_of_log() {
  const std::int64_t end = ::lseek(logstate.fd, 0, SEEK_END);
  if (end < kMagicSize) return -1;
  if (end == end_we_left || record_ends_at(end)) return end;
  // A killed process left a part of what it appended. Anything longer is no such part.
  const bool grown = end_we_left >= kMagicSize && end_we_left <= end;
  const std::int64_t whole = end_of_whole_records(grown ? end_we_left : kMagicSize, end);
  if (whole != end && end - whole > kLongestPiece) return -1;
  return common::cut_file(logstate.fd, whole) == 0 ? whole : -1;
}

class LogLock {
 public:
  LogLock() : held_(lkloglog(true) == 0) {}
  LogLock(const LogLock&) = delete;
  LogLock& operator=(const LogLock&) = delete;
  ~LogLock() {
    const KeepError keep;
    if (held_) lkloglog(false);
  }
  [[nodiscard]] bool held() const { return held_; }

 private:
  bool held_;
};

std::int32_t now() { return static_cast<std::int32_t>(std::time(nullptr)); }

// Writes `piece` at the end: where it begins, or -1 with 121 and nothing written.
template <typename Stamp>
std::int64_t append(Stamp stamp) {
  const LogLock lock;
  const std::int64_t end = lock.held() ? end_of_log() : -1;
  if (end < 0) return failed(kLogWrite);
  stamp(end);
  if (common::write_at(logstate.fd, piece, end) != 0) {
    common::cut_file(logstate.fd, end);
    return failed(kLogWrite);
  }
  end_we_left = end + static_cast<std::int64_t>(piece.size());
  return end;
}

void stamp(std::size_t at, Link previous, std::int32_t time) {
  stamp_record(&piece[at], logstate.process, logstate.user, time, previous);
}

// Starts a piece with what goes before the record itself: how long that is.
std::size_t lead_in(bool owes, bool begins, const OpenRecord* opened) {
  piece.clear();
  if (owes) static_cast<void>(RecordBuilder{piece, LogType::kRollback}.finish());
  if (begins) static_cast<void>(RecordBuilder{piece, LogType::kBegin}.finish());
  if (opened != nullptr) {
    RecordBuilder builder{piece, LogType::kOpened};
    builder.put_word(isfd_of(*opened));
    builder.put_word(opened->file->varlen ? 1 : 0);
    builder.put_name(opened->file->name);
    static_cast<void>(builder.finish());
  }
  return piece.size();
}

int length_at(std::size_t at) { return common::ldword(&piece[at + record::kLength]); }

}  // namespace

int open_log(const char* path) {
  common::FileHold fd{path == nullptr ? -1 : common::open_file(path, O_RDWR)};
  if (!fd && path != nullptr && errno == EMFILE) {
    vclose();
    fd = common::FileHold{common::open_file(path, O_RDWR)};
  }
  if (!fd) return failed(kLogOpen);
  const std::int64_t size = common::file_size(fd.get());
  if ((size == 0 ? write_magic(fd.get()) : check_magic(fd.get())) != 0) return -1;
  logstate = LogState{};
  logstate.fd = fd.release();
  logstate.process = ::getpid();
  logstate.user = static_cast<int>(::getuid() & 0xFFFF);
  end_we_left = 0;
  return 0;
}

int close_log() {
  if (!log_is_open()) return failed(kNotOpen);
  const int fd = logstate.fd;
  logstate = LogState{};
  return common::system_calls().close(fd) == 0 ? 0 : failed_system(errno);
}

int sync_log() { return ::fdatasync(logstate.fd) == 0 ? 0 : failed_system(errno); }

int lkloglog(bool take) { return lock_whole_file(logstate.fd, take); }

LogPiece::LogPiece(OpenRecord* open, LogType type, Linked linked)
    : owes_(logstate.owes_rollback),
      begins_(logstate.begin == Begin::kPending),
      opens_(open != nullptr && (open->flags & kLogged) == 0),
      linked_(linked),
      open_(open),
      start_(lead_in(owes_, begins_, opens_ ? open : nullptr)),
      record_(piece, type) {}

int LogPiece::writelog() {
  if (!record_.finish()) return failed(kLogWrite);
  Link chain = logstate.last;
  const std::int64_t end = append([&](std::int64_t at) {
    const std::int32_t time = now();
    std::size_t here = 0;
    const auto stamp_next = [&](Linked linked) {
      const bool chained = linked == Linked::kYes;
      stamp(here, chained ? chain : Link{}, time);
      if (chained) chain = {at + static_cast<std::int64_t>(here), length_at(here)};
      here += static_cast<std::size_t>(length_at(here));
    };
    if (owes_) stamp_next(Linked::kYes);
    if (begins_) stamp_next(Linked::kYes);
    if (opens_) stamp_next(Linked::kNo);
    before_image = chain;
    stamp_next(linked_);
  });
  if (end < 0) return -1;
  image_start = start_;
  logstate.last = chain;
  logstate.owes_rollback = false;
  if (begins_) logstate.begin = Begin::kWritten;
  if (opens_) open_->flags |= kLogged;
  return 0;
}

void withdraw_image() {
  logstate.image_logged = false;
  const KeepError keep;
  piece.erase(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(image_start));
  invert_image(piece);
  const Link previous = LogRecord{piece}.previous();
  // Linked like the image itself, though not part of the chain: how the transaction ends decides
  // about both alike.
  if (append([&](std::int64_t) { stamp(0, previous, now()); }) >= 0) logstate.last = before_image;
}

bool LogWindow::holds(std::int64_t offset, std::size_t length) const {
  if (offset < start_) return false;
  const auto skipped = static_cast<std::uint64_t>(offset - start_);
  return skipped <= filled_ && length <= filled_ - skipped;
}

ConstBytes LogWindow::at(std::int64_t offset, std::size_t length) const {
  return ConstBytes{buffer_}.subspan(static_cast<std::size_t>(offset - start_), length);
}

int LogWindow::readlog(std::int64_t offset, std::size_t length) {
  filled_ = 0;
  start_ = offset;
  try {
    if (buffer_.size() < length) buffer_.resize(length);
  } catch (const std::bad_alloc&) {
    return failed(kNoMemory);
  }
  const ssize_t got = common::read_at(fd_, Bytes{buffer_}.first(length), offset);
  if (got < 0) return failed(kLogRead);
  filled_ = static_cast<std::size_t>(got);
  return 0;
}

LogRecord LogWindow::isgetprev(std::int64_t offset, int length) {
  const auto size = static_cast<std::size_t>(length);
  if (offset < kMagicSize || length < record::kSmallest) return {};
  if (!holds(offset, size)) {
    const std::int64_t end = offset + length;
    const std::int64_t start = std::max<std::int64_t>(
        kMagicSize, end - static_cast<std::int64_t>(std::max(kWindow, size)));
    if (readlog(start, static_cast<std::size_t>(end - start)) != 0 || !holds(offset, size)) {
      return {};
    }
  }
  return LogRecord{at(offset, size)};
}

LogRecord LogWindow::isgetnext(std::int64_t offset) {
  if (!holds(offset, record::kSmallest)) {
    if (readlog(offset, kWindow) != 0 || !holds(offset, record::kSmallest)) return {};
  }
  const auto length = static_cast<std::size_t>(common::ldword(at(offset, 2).data()));
  if (length < record::kSmallest) return LogRecord{at(offset, record::kSmallest)};
  if (!holds(offset, length)) {
    if (readlog(offset, kWindow) != 0 || !holds(offset, length)) return {};
  }
  return LogRecord{at(offset, length)};
}

}  // namespace isam::txlog
