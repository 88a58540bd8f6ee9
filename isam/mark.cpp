#include "isam/mark.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "common/io.h"
#include "isam/errors.h"

namespace isam {
namespace {

struct Mark {
  Byte raw[kMarkSize] = {};

  [[nodiscard]] bool is_set() const { return common::ldlong(raw) == kMarkMagic; }
  [[nodiscard]] bool is_room() const {
    return std::ranges::all_of(raw, [](Byte byte) { return byte == 0; });
  }
};

// What lies past the end of the file is zero.
int read(const FileRecord& file, Mark& mark) {
  if (common::read_at(file.idxfd, mark.raw, kMarkOffset) >= 0) return 0;
  return failed_system(errno, Operation::kRead, FileKind::kIndex);
}

int write(const FileRecord& file, const Mark& mark) {
  if (common::write_at(file.idxfd, mark.raw, kMarkOffset) == 0) return 0;
  return failed_system(errno, Operation::kWrite, FileKind::kIndex);
}

}  // namespace

int set_mark(FileRecord& file) {
  Mark mark;
  if (file.mark != MarkState::kClear) {
    if (read(file, mark) != 0) return -1;
    if (!mark.is_room()) {
      if (file.mark == MarkState::kUnknown) file.mark = MarkState::kNotOurs;
      return 0;
    }
  }
  common::stlong(kMarkMagic, mark.raw);
  common::stlong(static_cast<std::int32_t>(::getpid()), mark.raw + kMarkProcess);
  if (write(file, mark) != 0) return -1;
  if (file.mark != MarkState::kUnneeded) file.mark = MarkState::kSet;
  file.mark_process = ::getpid();
  return 0;
}

int clear_mark(FileRecord& file) {
  if (file.mark_process != ::getpid()) return 0;
  if (write(file, Mark{}) != 0) return -1;
  file.mark_process = 0;
  if (file.mark == MarkState::kSet) file.mark = MarkState::kClear;
  return 0;
}

int remove_mark(FileRecord& file) {
  Mark mark;
  if (read(file, mark) != 0) return -1;
  return mark.is_set() ? write(file, Mark{}) : 0;
}

int find_mark(FileRecord& file) {
  Mark mark;
  if (read(file, mark) != 0) return -1;
  file.mark = mark.is_room() ? MarkState::kClear : MarkState::kNotOurs;
  return mark.is_set() ? 1 : 0;
}

}  // namespace isam
