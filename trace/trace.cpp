#include "trace/trace.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <new>
#include <string>

#include "common/hexdump.h"
#include "environment/settings.h"
#include "trace/private_file.h"

namespace trace {
namespace {

// Stays open as long as the process.
struct TraceFile {
  int fd = -1;
  dev_t device = 0;  // identity of what was opened
  ino_t inode = 0;
};

TraceFile the_file;

class KeepErrno {
 public:
  KeepErrno() = default;
  KeepErrno(const KeepErrno&) = delete;
  KeepErrno& operator=(const KeepErrno&) = delete;
  ~KeepErrno() { errno = kept_; }

 private:
  int kept_ = errno;
};

bool open_file() {
  const std::string path = environment::lookup("SQLIDEBUG").value_or("");
  if (path.empty()) return false;
  common::FileHold file = open_private(path);
  struct stat status {};
  if (!file || common::system_calls().fstat(file.get(), &status) != 0) return false;
  the_file = {file.release(), status.st_dev, status.st_ino};
  return true;
}

// An application may have closed the descriptor, and opened a file of its own under its number.
bool is_still_ours() {
  struct stat status {};
  return common::system_calls().fstat(the_file.fd, &status) == 0 &&
         status.st_dev == the_file.device && status.st_ino == the_file.inode;
}

// At most 63 characters.
template <typename... Values>
void append(std::string& text, const char* format, Values... values) {
  std::array<char, 64> room;
  const int length = std::snprintf(room.data(), room.size(), format, values...);
  text.append(room.data(), std::min(static_cast<std::size_t>(length), room.size() - 1));
}

void append_head(std::string& entry, Direction direction) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  ::gmtime_r(&now.tv_sec, &parts);
  append(entry, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ ", parts.tm_year + 1900, parts.tm_mon + 1,
         parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, now.tv_nsec / 1000);
  append(entry, "%ld %c ", static_cast<long>(::getpid()), static_cast<char>(direction));
}

std::string place_text(std::size_t at) {
  std::string text;
  append(text, "%6zu  ", at);
  return text;
}

std::string entry_of(Direction direction, std::string_view call, common::ConstBytes buffer) {
  std::string entry;
  append_head(entry, direction);
  entry += call;
  if (!buffer.empty()) append(entry, ", %zu bytes", buffer.size());
  entry += '\n';
  return entry + common::hex_dump(buffer, {place_text, " ", "|"});
}

}  // namespace

bool on() noexcept {
  if (state == State::kUnknown) {
    const KeepErrno keep;
    state = State::kOff;
    try {
      if (open_file()) state = State::kOn;
    } catch (const std::bad_alloc&) {
      state = State::kOff;
    }
  }
  return state == State::kOn;
}

void write(Direction direction, std::string_view call, common::ConstBytes buffer) noexcept {
  const KeepErrno keep;
  if (!is_still_ours()) {
    state = State::kOff;
    return;
  }
  try {
    const std::string entry = entry_of(direction, call, buffer);
    // The offset means nothing to a file that is appended to.
    static_cast<void>(common::write_at(
        the_file.fd, {reinterpret_cast<const common::Byte*>(entry.data()), entry.size()}, 0));
  } catch (const std::bad_alloc&) {
    return;  // the entry is left out
  }
}

}  // namespace trace
