#include "zentra/databytes.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include "checker/temporaryfile.h"
#include "common/holders.h"
#include "common/io.h"
#include "isam/base/current.h"
#include "zentra/text.h"

namespace zentra {
namespace {

constexpr std::string_view kHead = "kestro data 1\n";

isam::Bytes before_of(DataChange& change) {
  return {change.before, static_cast<std::size_t>(change.count)};
}
isam::ConstBytes before_of(const DataChange& change) {
  return {change.before, static_cast<std::size_t>(change.count)};
}
isam::ConstBytes after_of(const DataChange& change) {
  return {change.after, static_cast<std::size_t>(change.count)};
}

std::string text_of(const DataChanges& changes) {
  std::string text{kHead};
  for (const DataChange& change : changes) {
    text += fmt::format("{} {} {}\n", change.offset, hex(as_text(before_of(change))),
                        hex(as_text(after_of(change))));
  }
  return text + fmt::format("end {}\n", changes.size());
}

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

bool take_change(std::string_view& text, DataChange& change) {
  std::string_view offset;
  std::string_view before;
  std::string_view after;
  if (!take_word(text, ' ', offset) || !take_word(text, ' ', before) ||
      !take_word(text, '\n', after)) {
    return false;
  }
  std::from_chars(offset.data(), offset.data() + offset.size(), change.offset);
  change.count = bytes_of(before, change.before);
  return change.offset >= 0 && change.count > 0 && bytes_of(after, change.after) == change.count;
}

// Only the very text that text_of() makes is taken.
std::optional<DataChanges> parse(std::string_view text) {
  const std::string_view whole = text;
  if (!text.starts_with(kHead)) return {};
  text.remove_prefix(kHead.size());
  DataChanges changes;
  while (!text.starts_with("end ")) {
    if (!take_change(text, changes.emplace_back())) return {};
  }
  if (text_of(changes) != whole) return {};
  return changes;
}

// Writes pieces of the file, the bytes of each by `bytes`: 0, or -1 with errno.
template <typename Of>
int write_pieces(int fd, const DataChanges& changes, Of bytes) {
  for (const DataChange& change : changes) {
    if (common::write_at(fd, bytes(change), change.offset) != 0) return -1;
  }
  return common::system_calls().fsync(fd);
}

}  // namespace

std::optional<DataChanges> changes_for(const BadRecords& records) {
  DataChanges changes;
  changes.reserve(records.size());
  for (const BadRecord& bad : records) {
    DataChange& change = changes.emplace_back();
    change.count = trailer_size();
    change.offset = std::int64_t{bad.record - 1} * isam::slot_size() + isam::filep->geometry.reclen;
    if (!read_slot(bad.record, {}, before_of(change))) return {};
    if (bad.fate == Fate::kEmptied) change.after[0] = isam::kRecordPresent;
  }
  return changes;
}

std::string data_file_of(const std::string& kept) { return kept + ".data"; }

int note_changes(const std::string& kept, const DataChanges& changes) {
  checker::TemporaryFile file{kept.substr(0, kept.rfind(".before"))};  // of the index
  if (!file) {
    errno = file.error();
    return -1;
  }
  const std::string text = text_of(changes);
  const common::ConstBytes bytes{reinterpret_cast<const common::Byte*>(text.data()), text.size()};
  if (common::write_at(file.fd(), bytes, 0) != 0 || common::system_calls().fsync(file.fd()) != 0) {
    return -1;
  }
  return file.replace(data_file_of(kept));
}

std::optional<DataChanges> noted_changes(const std::string& kept) {
  const std::string path = data_file_of(kept);
  const common::FileHold file{common::open_file(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK)};
  if (!file && errno == ENOENT) return DataChanges{};
  if (!file) return {};
  std::string text(static_cast<std::size_t>(common::file_size(file.get())), '\0');
  const common::Bytes to{reinterpret_cast<common::Byte*>(text.data()), text.size()};
  if (common::read_at(file.get(), to, 0) != static_cast<ssize_t>(text.size())) return {};
  return parse(text);
}

bool are_there(int fd, const DataChanges& changes) {
  for (const DataChange& change : changes) {
    isam::Byte now[isam::kVariableTrailer];
    const auto count = static_cast<std::size_t>(change.count);
    if (common::read_at(fd, {now, count}, change.offset) != change.count) return false;
    if (std::memcmp(now, change.before, count) != 0 && std::memcmp(now, change.after, count) != 0) {
      return false;
    }
  }
  return true;
}

int make_changes(int fd, const DataChanges& changes) { return write_pieces(fd, changes, after_of); }

int take_back_changes(int fd, const DataChanges& changes) {
  return write_pieces(fd, changes, [](const DataChange& change) { return before_of(change); });
}

}  // namespace zentra
