#include "zentra/repair/losses.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <vector>

#include "checker/entry.h"
#include "checker/temporaryfile.h"
#include "common/filecopy.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

constexpr std::size_t kPiece = std::size_t{64} << 10;

bool is_empty(std::string_view bytes) {
  return std::ranges::all_of(bytes, [](char byte) { return byte == 0; });
}

// Of an absent record only what it has besides zero bytes: empty when there is none, and for a
// record that stays as it is. Nothing, with errno, when the record cannot be read.
std::optional<std::string> line_of(const BadRecord& bad) {
  if (bad.fate == Fate::kPresented) return std::string{};
  // What is missing of the last slot is no part of the record, or zero in its trailer.
  const int length = isam::filep->geometry.reclen;
  const int there = slot_bytes(bad.record);
  std::vector<isam::Byte> fixed(static_cast<std::size_t>(std::min(length, there)));
  std::vector<isam::Byte> trailer(static_cast<std::size_t>(std::max(there - length, 0)));
  if (!read_slot(bad.record, fixed, trailer)) return {};
  trailer.resize(static_cast<std::size_t>(trailer_size()));
  std::string variable;
  if (const int failed = variable_part(trailer, variable)) {
    errno = failed;
    return {};
  }
  if (bad.fate == Fate::kCleared && is_empty(as_text(fixed)) && is_empty(variable)) {
    return std::string{};
  }
  return line_of(LostRecord{.record = bad.record,
                            .state = trailer[0],
                            .fixed = as_text(fixed),
                            .variable = variable,
                            .is_kept = bad.fate == Fate::kEmptied,
                            .reason = code_of(bad.why)});
}

}  // namespace

std::string line_of(const LostRecord& lost) {
  return fmt::format(
      "{{\"schema\":{},\"type\":\"lost-record\",\"record\":{},\"state\":{},\"fixed\":\"{}\","
      "\"variable\":\"{}\",\"kept\":{},\"reason\":\"{}\"}}\n",
      checker::kSchema, lost.record, lost.state, hex(lost.fixed), hex(lost.variable), lost.is_kept,
      lost.reason);
}

std::string losses_of(const std::string& name) { return name + ".lost.jsonl"; }

int Losses::append(const std::string& path, const BadRecords& records) {
  constexpr mode_t kPrivate = 0600;
  path_ = path;
  constexpr int kHow = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK;
  file_ = common::FileHold{common::open_file(path.c_str(), kHow | O_EXCL, kPrivate)};
  is_new_ = static_cast<bool>(file_);
  if (!file_ && errno == EEXIST) {
    file_ = common::FileHold{common::open_file(path.c_str(), kHow, kPrivate)};
  }
  struct stat status {};
  if (!file_ || common::system_calls().fstat(file_.get(), &status) != 0) return -1;
  if (!S_ISREG(status.st_mode)) {
    file_ = {};
    errno = ENOTSUP;
    return -1;
  }
  before_ = status.st_size;
  if (is_new_) static_cast<void>(common::copy_attributes(isam::filep->data.fd, file_.get()));
  if (write_all(records) != 0 || common::system_calls().fsync(file_.get()) != 0) return -1;
  const common::FileHold folder{
      common::open_file(checker::folder_of(path).c_str(), O_RDONLY | O_DIRECTORY)};
  return folder && common::system_calls().fsync(folder.get()) != 0 && errno != EINVAL ? -1 : 0;
}

int Losses::write_all(const BadRecords& records) {
  std::int64_t at = before_;
  std::string text;
  isam::Byte last = '\n';
  if (before_ > 0 && common::read_at(file_.get(), {&last, 1}, before_ - 1) != 1) return -1;
  if (last != '\n') text.push_back('\n');  // a killed run has left half a line
  const auto put = [&] {
    const common::ConstBytes bytes{reinterpret_cast<const common::Byte*>(text.data()), text.size()};
    if (common::write_at(file_.get(), bytes, at) != 0) return -1;
    at += static_cast<std::int64_t>(text.size());
    text.clear();
    return 0;
  };
  for (const BadRecord& bad : records) {
    const auto line = line_of(bad);
    if (!line) return -1;
    count_ += line->empty() ? 0 : 1;
    text += *line;
    if (text.size() >= kPiece && put() != 0) return -1;
  }
  isam::clear_errors();
  return put();
}

void Losses::take_back() {
  if (!file_) return;
  if (is_new_) {
    common::system_calls().unlink(path_.c_str());
  } else {
    common::cut_file(file_.get(), before_);
  }
  count_ = 0;
  file_ = {};
}

}  // namespace zentra
