#include "zentra/repair/databytes.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "checker/temporaryfile.h"
#include "common/filecopy.h"
#include "common/holders.h"
#include "common/io.h"
#include "isam/base/current.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

constexpr std::string_view kHead = "kestro data 1\n";
constexpr std::string_view kUndoing = "undoing\n";
constexpr std::size_t kPiece = std::size_t{64} << 10;

common::ConstBytes as_bytes(std::string_view text) {
  return {reinterpret_cast<const common::Byte*>(text.data()), text.size()};
}

isam::Bytes before_of(DataChange& change) {
  return {change.before, static_cast<std::size_t>(change.count)};
}
isam::ConstBytes before_of(const DataChange& change) {
  return {change.before, static_cast<std::size_t>(change.count)};
}
isam::ConstBytes after_of(const DataChange& change) {
  return {change.after, static_cast<std::size_t>(change.count)};
}

std::string line_of(const DataChange& change) {
  return fmt::format("{} {} {}\n", change.offset, hex(as_text(before_of(change))),
                     hex(as_text(after_of(change))));
}

std::string line_of(const checker::UndoData::Index& kept) {
  return fmt::format("kept {} {:016x}\n", kept.stamp, kept.checksum);
}

// `fd`: the file, for all that stands in front of this line.
int make_last_line(int fd, std::size_t count, std::int64_t at, std::string& line) {
  std::uint64_t sum = 0;
  if (common::checksum_of(fd, sum, at) != 0) return -1;
  line = fmt::format("end {} {:016x}\n", count, sum);
  return 0;
}

// Writes text behind text.
class NoteWriter {
 public:
  explicit NoteWriter(int fd) : fd_(fd) {}
  [[nodiscard]] std::int64_t at() const { return at_; }

  // 0, or -1 with errno.
  int put(std::string_view text) {
    text_ += text;
    return text_.size() < kPiece ? 0 : flush();
  }
  int flush() {
    if (common::write_at(fd_, as_bytes(text_), at_) != 0) return -1;
    at_ += static_cast<std::int64_t>(text_.size());
    text_.clear();
    return 0;
  }

 private:
  int fd_;
  std::string text_;
  std::int64_t at_ = 0;
};

// Reads line after line, none longer than any of a note.
class NoteReader {
 public:
  explicit NoteReader(int fd) : fd_(fd) {}
  // Of the next line.
  [[nodiscard]] std::int64_t at() const { return at_; }
  [[nodiscard]] int error() const { return error_; }  // errno

  // With its newline, valid until the next call; empty when there is none.
  [[nodiscard]] std::string_view next() {
    std::size_t end = text_.find('\n', from_);
    if (end == std::string::npos) {
      read_on();
      end = text_.find('\n');
    }
    if (end == std::string::npos || end - from_ >= kLongest) return {};
    const std::string_view line = std::string_view{text_}.substr(from_, end + 1 - from_);
    from_ = end + 1;
    at_ += static_cast<std::int64_t>(line.size());
    return line;
  }

 private:
  static constexpr std::size_t kLongest = 100;

  void read_on() {
    text_.erase(0, from_);
    from_ = 0;
    if (text_.size() >= kLongest) return;
    const std::size_t had = text_.size();
    text_.resize(had + kPiece);
    const common::Bytes room{reinterpret_cast<common::Byte*>(text_.data()) + had, kPiece};
    const ssize_t got = common::read_at(fd_, room, at_ + static_cast<std::int64_t>(had));
    if (got < 0) error_ = errno;
    text_.resize(had + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  }

  int fd_;
  std::string text_;
  std::size_t from_ = 0;  // where the next line begins in it
  std::int64_t at_ = 0;
  int error_ = 0;
};

// Takes the word in front of `end`, and `end`, off the text: false when there is none.
bool take_word(std::string_view& text, char end, std::string_view& word) {
  const std::size_t at = text.find(end);
  if (at == std::string_view::npos) return false;
  word = text.substr(0, at);
  text.remove_prefix(at + 1);
  return true;
}

// As many bytes as there are pairs of hexadecimal digits; -1 for anything else.
int bytes_of(std::string_view digits, isam::Byte* to) {
  const std::size_t count = digits.size() / 2;
  if (digits.size() % 2 != 0 || count < 1 || count > isam::kVariableTrailer) return -1;
  for (std::size_t i = 0; i < count; ++i) {
    const char* const from = digits.data() + 2 * i;
    const auto [end, error] = std::from_chars(from, from + 2, to[i], 16);
    if (error != std::errc{} || end != from + 2) return -1;
  }
  return static_cast<int>(count);
}

// Only the very line that line_of() makes is taken.
bool take_change(const std::string_view line, DataChange& change) {
  std::string_view rest = line;
  std::string_view offset;
  std::string_view before;
  std::string_view after;
  if (!take_word(rest, ' ', offset) || !take_word(rest, ' ', before) ||
      !take_word(rest, '\n', after)) {
    return false;
  }
  std::from_chars(offset.data(), offset.data() + offset.size(), change.offset);
  change.count = bytes_of(before, change.before);
  return change.offset >= 0 && change.count > 0 && bytes_of(after, change.after) == change.count &&
         line_of(change) == line;
}

bool take_kept(const std::string_view line, checker::UndoData::Index& kept) {
  constexpr int kFields = 2;
  constexpr char kForm[] = "kept %" SCNu32 " %16" SCNx64;
  return std::sscanf(std::string{line}.c_str(), kForm, &kept.stamp, &kept.checksum) == kFields &&
         line_of(kept) == line;
}

// False when it cannot be read or is damaged.
bool read_note(int fd, NoteReader& lines, DataNote& note) {
  if (lines.next() != kHead || !take_kept(lines.next(), note.kept)) return false;
  std::int64_t at = lines.at();
  std::string_view line = lines.next();
  for (; !line.starts_with("end "); line = lines.next()) {
    DataChange change;
    if (!take_change(line, change)) return false;
    if (note.changes.empty()) note.changes = DataChanges{change.count};
    if (!note.changes.add(change)) return false;
    at = lines.at();
  }
  std::string last;
  if (make_last_line(fd, note.changes.size(), at, last) != 0 || line != last) return false;
  note.end = lines.at();
  note.is_undoing = lines.next() == kUndoing;
  return true;
}

// What stands at a place of the data file.
enum class Standing { kBefore, kAfter, kOther, kUnread };

Standing standing_of(int fd, const DataChange& change) {
  isam::Byte now[isam::kVariableTrailer];
  const auto count = static_cast<std::size_t>(change.count);
  const ssize_t got = common::read_at(fd, {now, count}, change.offset);
  if (got < 0) return Standing::kUnread;
  if (got != change.count) return Standing::kOther;
  if (std::memcmp(now, change.before, count) == 0) return Standing::kBefore;
  return std::memcmp(now, change.after, count) == 0 ? Standing::kAfter : Standing::kOther;
}

// Writes pieces of the file, the bytes of each by `bytes`: 0, or -1 with errno.
template <typename Of>
int write_pieces(int fd, const DataChanges& changes, Of bytes) {
  for (std::size_t i = 0; i < changes.size(); ++i) {
    const DataChange change = changes[i];
    if (common::write_at(fd, bytes(change), change.offset) != 0) return -1;
  }
  return common::system_calls().fsync(fd);
}

}  // namespace

void DataChanges::reserve(std::size_t places) {
  before_.reserve(places);
  first_after_.reserve(places);
  clears_rest_.reserve(places);
}

bool DataChanges::add(const DataChange& change) {
  if (static_cast<std::size_t>(change.count) != before_.count()) return false;
  const isam::ConstBytes rest = after_of(change).subspan(1);
  const bool clears = std::ranges::all_of(rest, [](isam::Byte byte) { return byte == 0; });
  if (!clears && !std::ranges::equal(rest, before_of(change).subspan(1))) return false;
  before_.add(change.offset, before_of(change));
  first_after_.push_back(after_of(change)[0]);
  clears_rest_.push_back(clears);
  return true;
}

void DataChanges::clear() {
  before_.clear();
  first_after_.clear();
  clears_rest_.clear();
}

DataChange DataChanges::operator[](std::size_t place) const {
  const isam::ConstBytes before = before_.bytes(place);
  DataChange change{.offset = before_.offset(place), .count = static_cast<int>(before.size())};
  std::ranges::copy(before, change.before);
  if (!clears_rest_[place]) std::ranges::copy(before, change.after);
  change.after[0] = first_after_[place];
  return change;
}

std::optional<DataChanges> changes_for(const BadRecords& records) {
  DataChanges changes{trailer_size()};
  changes.reserve(records.size());
  for (const BadRecord& bad : records) {
    if (bad.why == Why::kTorn) continue;
    DataChange change{
        .offset = std::int64_t{bad.record - 1} * isam::slot_size() + isam::filep->geometry.reclen,
        .count = trailer_size()};
    if (!read_slot(bad.record, {}, before_of(change))) return {};
    if (bad.fate == Fate::kPresented) std::ranges::copy(change.before, change.after);
    const bool stays = bad.fate == Fate::kEmptied || bad.fate == Fate::kPresented;
    if (stays) change.after[0] = isam::kRecordPresent;
    static_cast<void>(changes.add(change));  // it has the form
  }
  return changes;
}

int note_changes(const std::string& kept, const DataChanges& changes) {
  const common::FileHold index{common::open_file(kept.c_str(), O_RDONLY | O_NOFOLLOW)};
  checker::UndoData::Index its;
  if (!index || checker::describe(index.get(), its) != 0) return -1;
  checker::TemporaryFile file{kept.substr(0, kept.rfind(".before"))};  // of the index
  if (!file) {
    errno = file.error();
    return -1;
  }
  NoteWriter to{file.fd()};
  if (to.put(kHead) != 0 || to.put(line_of(its)) != 0) return -1;
  for (std::size_t i = 0; i < changes.size(); ++i) {
    if (to.put(line_of(changes[i])) != 0) return -1;
  }
  std::string last;
  if (to.flush() != 0 || make_last_line(file.fd(), changes.size(), to.at(), last) != 0 ||
      to.put(last) != 0 || to.flush() != 0 ||
      common::copy_attributes(index.get(), file.fd()) != 0 ||
      common::system_calls().fsync(file.fd()) != 0) {
    return -1;
  }
  return file.replace(data_file_of(kept));
}

DataNote noted_changes(const std::string& kept) {
  const std::string path = data_file_of(kept);
  DataNote note;
  const common::FileHold file{common::open_file(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK)};
  if (!file && errno == ENOENT) return note;
  int error = file ? 0 : errno;
  if (file) {
    NoteReader lines{file.get()};
    if (read_note(file.get(), lines, note)) return note;
    error = lines.error();
  }
  note.fault = error == 0 ? fmt::format("{} is damaged", shown(path))
                          : fmt::format("{}: {}", shown(path), std::strerror(error));
  return note;
}

int note_undoing(const std::string& kept, const DataNote& note) {
  const std::string path = data_file_of(kept);
  const common::FileHold file{common::open_file(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK)};
  return file && common::write_at(file.get(), as_bytes(kUndoing), note.end) == 0
             ? common::system_calls().fsync(file.get())
             : -1;
}

int note_no_undoing(const std::string& kept, const DataNote& note) {
  const std::string path = data_file_of(kept);
  const common::FileHold file{common::open_file(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK)};
  return file ? common::cut_file(file.get(), note.end) : -1;
}

bool are_there(int fd, const DataChanges& changes) {
  for (std::size_t i = 0; i < changes.size(); ++i) {
    const Standing standing = standing_of(fd, changes[i]);
    if (standing != Standing::kBefore && standing != Standing::kAfter) return false;
  }
  return true;
}

int make_changes(int fd, const DataChanges& changes) { return write_pieces(fd, changes, after_of); }

int take_back_changes(int fd, const DataChanges& changes) {
  return write_pieces(fd, changes, [](const DataChange& change) { return before_of(change); });
}

int TakingBack::run(int fd, const DataChanges& changes) {
  written_.assign(changes.size(), false);  // nothing may be thrown once something is written
  for (std::size_t i = 0; i < changes.size(); ++i) {
    const DataChange change = changes[i];
    const Standing standing = standing_of(fd, change);
    if (standing == Standing::kUnread) return -1;
    if (standing == Standing::kOther) ++others_;
    if (standing != Standing::kAfter) continue;
    written_[i] = true;
    if (common::write_at(fd, before_of(change), change.offset) != 0) return -1;
  }
  return common::system_calls().fsync(fd);
}

int TakingBack::make_again(int fd, const DataChanges& changes) const {
  for (std::size_t i = 0; i < written_.size(); ++i) {
    if (!written_[i]) continue;
    const DataChange change = changes[i];
    if (common::write_at(fd, after_of(change), change.offset) != 0) return -1;
  }
  return common::system_calls().fsync(fd);
}

}  // namespace zentra
