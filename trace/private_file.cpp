#include "trace/private_file.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace trace {
namespace {

common::FileHold open_without_link(const std::string& path) {
  // A fifo without a reader is refused instead of waited for.
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  return common::FileHold{common::open_file(path.c_str(), kFlags, S_IRUSR | S_IWUSR)};
}

// Where the user's own symbolic link leads, empty when it is not the user's. The link is held open
// meanwhile, so that it cannot be changed for another between the look and the use.
std::string target_of_own_link(const std::string& path) {
  const common::FileHold link{common::open_file(path.c_str(), O_PATH | O_NOFOLLOW)};
  struct stat status {};
  if (!link || common::system_calls().fstat(link.get(), &status) != 0) return {};
  if (!S_ISLNK(status.st_mode) || status.st_uid != ::geteuid()) return {};
  std::array<char, PATH_MAX> text;
  const ssize_t length = ::readlinkat(link.get(), "", text.data(), text.size());
  if (length <= 0) return {};
  std::string target(text.data(), static_cast<std::size_t>(length));
  if (target.front() == '/') return target;
  return path.substr(0, path.rfind('/') + 1) + target;  // npos + 1 is 0
}

bool is_private(int fd) {
  struct stat status {};
  return common::system_calls().fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
         status.st_uid == ::geteuid() && status.st_nlink == 1;
}

}  // namespace

common::FileHold open_private(const std::string& path) {
  common::FileHold file = open_without_link(path);
  if (!file && errno == ELOOP) {
    const std::string target = target_of_own_link(path);
    if (!target.empty()) file = open_without_link(target);
  }
  return file && is_private(file.get()) ? std::move(file) : common::FileHold{};
}

}  // namespace trace
