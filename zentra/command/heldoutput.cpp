#include "zentra/command/heldoutput.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

#include "zentra/report/progress.h"

namespace zentra {

off_t size_of(std::FILE* file) { return std::max<off_t>(::lseek(::fileno(file), 0, SEEK_END), 0); }

HeldFile held_file() {
  if (std::FILE* const file = std::tmpfile()) return HeldFile{file};
  const int fd = ::memfd_create("report", MFD_CLOEXEC);
  return HeldFile{fd < 0 ? nullptr : ::fdopen(fd, "w+")};
}

bool print_held(std::FILE* file, const HeldPart& part, bool is_whole) {
  std::array<char, 65536> buffer;
  std::string rest;
  bool any = false;
  erase_progress();
  for (off_t at = part.begin; at < part.end;) {
    const auto most = std::min<off_t>(part.end - at, buffer.size());
    // The place in the file is its writer's.
    const ssize_t got = ::pread(::fileno(file), buffer.data(), static_cast<std::size_t>(most), at);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    at += got;
    rest.append(buffer.data(), static_cast<std::size_t>(got));
    const std::size_t end = is_whole ? rest.size() : rest.rfind('\n') + 1;
    if (end == 0) continue;
    std::fwrite(rest.data(), 1, end, stdout);
    rest.erase(0, end);
    any = true;
  }
  return any;
}

HeldOutput::HeldOutput() : file_(held_file()) {
  std::fflush(stdout);
  if (file_ == nullptr) return;
  before_ = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  if (before_ >= 0) ::dup2(::fileno(file_.get()), STDOUT_FILENO);
}

HeldOutput::~HeldOutput() {
  if (before_ < 0) return;
  std::fflush(stdout);
  ::dup2(before_, STDOUT_FILENO);
  ::close(before_);
  print_held(file_.get(), {.end = size_of(file_.get())}, true);
  std::fflush(stdout);
}

}  // namespace zentra
