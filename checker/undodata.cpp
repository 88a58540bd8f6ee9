#include "checker/undodata.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cinttypes>
#include <cstdio>
#include <vector>

#include "common/filecopy.h"
#include "common/holders.h"
#include "common/io.h"
#include "isam/base/format.h"

namespace checker {
namespace {

constexpr char kAttribute[] = "user.kestro.undo";
constexpr char kForm[] =  // for reading what text_of() writes
    "kestro undo 1\n"
    "repaired %" SCNd64 " %" SCNd64 ".%9ld %" SCNu32 " %16" SCNx64
    "\n"
    "kept %" SCNd64 " %" SCNd64 ".%9ld %" SCNu32 " %16" SCNx64
    "\n"
    "data %" SCNd64 " %" SCNd64 ".%9ld\n";
constexpr std::size_t kRoom = 512;  // twice the longest text
constexpr int kFields = 13;         // of kForm

}  // namespace

int describe(int fd, UndoData::File& file) {
  struct stat status {};
  if (common::system_calls().fstat(fd, &status) != 0) return -1;
  file = {.size = status.st_size, .changed = status.st_mtim};
  return 0;
}

int describe(int fd, UndoData::Index& index) {
  isam::Dictionary dictionary{};
  if (common::read_at(fd, dictionary.raw, 0) < 0) return -1;
  index.stamp = dictionary.d_modcount();
  return describe(fd, index.file) != 0 ? -1 : common::checksum_of(fd, index.checksum);
}

std::string text_of(const UndoData& data) {
  char text[kRoom];
  const auto seconds = [](const UndoData::File& file) { return std::int64_t{file.changed.tv_sec}; };
  const int length = std::snprintf(
      text, sizeof text,
      "kestro undo 1\n"
      "repaired %" PRId64 " %" PRId64 ".%09ld %" PRIu32 " %016" PRIx64
      "\n"
      "kept %" PRId64 " %" PRId64 ".%09ld %" PRIu32 " %016" PRIx64
      "\n"
      "data %" PRId64 " %" PRId64 ".%09ld\n",
      data.repaired.file.size, seconds(data.repaired.file), data.repaired.file.changed.tv_nsec,
      data.repaired.stamp, data.repaired.checksum, data.kept.file.size, seconds(data.kept.file),
      data.kept.file.changed.tv_nsec, data.kept.stamp, data.kept.checksum, data.data.size,
      seconds(data.data), data.data.changed.tv_nsec);
  return {text, static_cast<std::size_t>(length)};
}

std::optional<UndoData> parse_undo_data(const std::string& text) {
  UndoData data;
  const auto set_seconds = [](UndoData::File& file, std::int64_t seconds) {
    file.changed.tv_sec = static_cast<time_t>(seconds);
  };
  std::int64_t seconds[3] = {};
  const int fields = std::sscanf(
      text.c_str(), kForm, &data.repaired.file.size, &seconds[0],
      &data.repaired.file.changed.tv_nsec, &data.repaired.stamp, &data.repaired.checksum,
      &data.kept.file.size, &seconds[1], &data.kept.file.changed.tv_nsec, &data.kept.stamp,
      &data.kept.checksum, &data.data.size, &seconds[2], &data.data.changed.tv_nsec);
  set_seconds(data.repaired.file, seconds[0]);
  set_seconds(data.kept.file, seconds[1]);
  set_seconds(data.data, seconds[2]);
  // sscanf() is lenient: only the very text that text_of() makes is taken.
  if (fields != kFields || text_of(data) != text) return std::nullopt;
  return data;
}

std::string undo_file_of(const std::string& kept) { return kept + ".undo"; }

std::string data_file_of(const std::string& kept) { return kept + ".data"; }

int store_undo_data(int kept_fd, const UndoData& data) {
  const std::string text = text_of(data);
  return common::system_calls().fsetxattr(kept_fd, kAttribute, text.data(), text.size(), 0);
}

std::optional<UndoData> load_undo_data(const std::string& kept) {
  std::vector<char> text(kRoom);
  ssize_t got = ::getxattr(kept.c_str(), kAttribute, text.data(), text.size());
  if (got < 0) {
    const common::FileHold file{common::open_file(undo_file_of(kept).c_str(), O_RDONLY)};
    if (!file) return std::nullopt;
    got =
        common::read_at(file.get(), {reinterpret_cast<common::Byte*>(text.data()), text.size()}, 0);
  }
  if (got < 0) return std::nullopt;
  return parse_undo_data({text.data(), static_cast<std::size_t>(got)});
}

void remove_undo_data(int fd, const std::string& kept) {
  ::fremovexattr(fd, kAttribute);
  common::system_calls().unlink(undo_file_of(kept).c_str());
}

}  // namespace checker
