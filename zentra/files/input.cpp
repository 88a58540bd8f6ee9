#include "zentra/files/input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/io.h"

namespace zentra {
namespace {

constexpr std::size_t kBeginning = 4096;
constexpr std::size_t kShownOfLongLine = 4096;
constexpr mode_t kPrivate = 0600;

common::ConstBytes bytes_of(std::span<const char> text) {
  return {reinterpret_cast<const common::Byte*>(text.data()), text.size()};
}

// A file without a name, else one that loses its name at once.
int make_unnamed(const std::string& folder) {
  const int fd = common::open_file(folder.c_str(), O_TMPFILE | O_RDWR, kPrivate);
  if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
  std::string name = folder + (folder.ends_with('/') ? "" : "/") + "zentra-load-XXXXXX";
  const int named = ::mkostemp(name.data(), O_CLOEXEC);
  if (named >= 0) ::unlink(name.c_str());
  return named;
}

}  // namespace

bool Input::open(const std::string& path, const std::string& folder) {
  const bool is_standard = path.empty() || path == "-";
  file_ = common::FileHold{is_standard ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                                       : common::open_file(path.c_str(), O_RDONLY | O_NOCTTY)};
  struct stat status {};
  if (!file_ || common::system_calls().fstat(file_.get(), &status) != 0) return false;
  // Standard input may begin anywhere in a file.
  is_file_ = S_ISREG(status.st_mode) && !is_standard;
  if (is_file_) {
    size_ = status.st_size;
    ::posix_fadvise(file_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  } else {
    kept_ = common::FileHold{make_unnamed(folder)};
    if (!kept_) return false;
  }
  std::string room(kBeginning, '\0');
  while (beginning_.size() < kBeginning) {
    const ssize_t got = read_first_time({room.data(), kBeginning - beginning_.size()});
    if (got < 0) return false;
    if (got == 0) break;
    beginning_.append(room.data(), static_cast<std::size_t>(got));
  }
  return true;
}

ssize_t Input::take(std::span<char> to) const {
  ssize_t got = -1;
  do {
    got = ::read(file_.get(), to.data(), to.size());
  } while (got < 0 && errno == EINTR);
  return got;
}

ssize_t Input::read_first_time(std::span<char> to) {
  const ssize_t got = take(to);
  if (got <= 0) return got;
  const auto some = to.first(static_cast<std::size_t>(got));
  if (!is_file_ && common::write_in_pieces(kept_.get(), bytes_of(some), kept_size_) != 0) return -1;
  kept_size_ += got;
  return got;
}

ssize_t Input::read(std::span<char> to) {
  ssize_t got = 0;
  if (reads_kept_) {
    got =
        common::read_at(kept_.get(), {reinterpret_cast<common::Byte*>(to.data()), to.size()}, at_);
  } else if (beginning_given_ < beginning_.size()) {
    const std::size_t count = std::min(to.size(), beginning_.size() - beginning_given_);
    std::memcpy(to.data(), beginning_.data() + beginning_given_, count);
    beginning_given_ += count;
    got = static_cast<ssize_t>(count);
  } else {
    got = read_first_time(to);
  }
  at_ += std::max<ssize_t>(got, 0);
  return got;
}

int Input::again() {
  at_ = 0;
  if (!is_file_) {
    reads_kept_ = true;
    return 0;
  }
  beginning_given_ = beginning_.size();
  return ::lseek(file_.get(), 0, SEEK_SET) == 0 ? 0 : -1;
}

LineReader::Got LineReader::next() {
  for (std::size_t searched = 0;;) {
    const char* const from = room_.data() + begin_;
    const void* const found = std::memchr(from + searched, '\n', end_ - begin_ - searched);
    if (found != nullptr) {
      const auto length = static_cast<std::size_t>(static_cast<const char*>(found) - from);
      line_ = {from, length};
      begin_ += length + 1;
      ++number_;
      return Got::kLine;
    }
    searched = end_ - begin_;
    if (begin_ > 0) {
      std::memmove(room_.data(), from, searched);
      begin_ = 0;
      end_ = searched;
    }
    if (end_ == room_.size()) return pass_long_line();
    const ssize_t got = input_.read({room_.data() + end_, room_.size() - end_});
    if (got < 0) return Got::kFailed;
    if (got == 0) break;
    end_ += static_cast<std::size_t>(got);
  }
  if (begin_ == end_) return Got::kEnd;
  is_ended_ = false;
  line_ = {room_.data() + begin_, end_ - begin_};
  begin_ = end_;
  ++number_;
  return Got::kLine;
}

LineReader::Got LineReader::pass_long_line() {
  beginning_.assign(room_.data(), kShownOfLongLine);
  line_ = beginning_;
  ++number_;
  for (;;) {
    const ssize_t got = input_.read({room_.data(), room_.size()});
    if (got < 0) return Got::kFailed;
    const auto count = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    const void* const found = std::memchr(room_.data(), '\n', count);
    if (found == nullptr && count > 0) continue;
    is_ended_ = found != nullptr;
    begin_ = found == nullptr
                 ? 0
                 : static_cast<std::size_t>(static_cast<const char*>(found) - room_.data()) + 1;
    end_ = count;
    return Got::kTooLong;
  }
}

}  // namespace zentra
