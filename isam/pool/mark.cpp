#include "isam/pool/mark.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "common/io.h"
#include "isam/base/errors.h"

namespace isam {
namespace {

struct Mark {
  Byte raw[kMarkSize] = {};

  [[nodiscard]] bool is_set() const { return common::ldlong(raw) == kMarkMagic; }
  // Nothing stands there: neither a mark nor other bytes.
  [[nodiscard]] bool is_empty() const {
    return std::ranges::all_of(raw, [](Byte byte) { return byte == 0; });
  }
};

// Reads into a mark that is still empty: what lies past the end of the file stays zero.
int read(const OpenPair& file, Mark& mark) {
  if (common::read_at(file.index.fd, mark.raw, kMarkOffset) >= 0) return 0;
  return failed_system(errno, Operation::kRead, FileKind::kIndex);
}

int write(const OpenPair& file, const Mark& mark) {
  if (common::write_at(file.index.fd, mark.raw, kMarkOffset) == 0) return 0;
  return failed_system(errno, Operation::kWrite, FileKind::kIndex);
}

// Clears the process number first and the magic last, so that the pair stays marked when the first
// write fails. When the second one fails the magic is written again: half a magic would be no mark,
// but bytes that this system does not know.
int clear(const OpenPair& file) {
  constexpr std::size_t kMagicSize = kMarkProcess;  // the magic ends where the process begins
  constexpr Byte kZeros[kMarkSize] = {};
  const auto write_part = [&file](ConstBytes bytes, std::int64_t within) {
    return common::write_at(file.index.fd, bytes, kMarkOffset + within);
  };
  if (write_part({kZeros, kMarkSize - kMagicSize}, kMarkProcess) == 0) {
    if (write_part({kZeros, kMagicSize}, 0) == 0) return 0;
    const int reason = errno;
    Byte magic[kMagicSize];
    common::stlong(kMarkMagic, magic);
    static_cast<void>(write_part(magic, 0));
    errno = reason;
  }
  return failed_system(errno, Operation::kWrite, FileKind::kIndex);
}

}  // namespace

int set_mark(OpenPair& file) {
  Mark mark;
  if (file.mark.state != MarkState::kClear) {
    if (read(file, mark) != 0) return -1;
    if (!mark.is_empty()) {
      if (file.mark.state == MarkState::kUnknown) file.mark.state = MarkState::kNotOurs;
      return 0;
    }
    // Remembered, for the write below may fail with half of a mark written. The next attempt then
    // does not look, and does not take that half for other bytes.
    if (file.mark.state == MarkState::kUnknown) file.mark.state = MarkState::kClear;
  }
  common::stlong(kMarkMagic, mark.raw);
  common::stlong(static_cast<std::int32_t>(::getpid()), mark.raw + kMarkProcess);
  if (write(file, mark) != 0) return -1;
  if (file.mark.state != MarkState::kUnneeded) file.mark.state = MarkState::kSet;
  file.mark.process = ::getpid();
  return 0;
}

int clear_mark(OpenPair& file) {
  if (file.mark.process != ::getpid()) return 0;
  if (clear(file) != 0) return -1;
  file.mark.process = 0;
  if (file.mark.state == MarkState::kSet) file.mark.state = MarkState::kClear;
  return 0;
}

int remove_mark(OpenPair& file) {
  Mark mark;
  if (read(file, mark) != 0) return -1;
  return mark.is_set() ? clear(file) : 0;
}

int find_mark(OpenPair& file) {
  Mark mark;
  if (read(file, mark) != 0) return -1;
  file.mark.state = mark.is_empty() ? MarkState::kClear : MarkState::kNotOurs;
  return mark.is_set() ? 1 : 0;
}

}  // namespace isam
