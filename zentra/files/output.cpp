#include "zentra/files/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "checker/obstacle.h"
#include "checker/temporaryfile.h"
#include "common/io.h"

namespace zentra {
namespace {

constexpr std::size_t kBuffer = std::size_t{128} << 10;

// What a new file may be read and written by.
mode_t mode_of_new_file() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

}  // namespace

Output::Output(std::string file) : file_(std::move(file)), buffer_(kBuffer) {
  if (file_ == "-") file_.clear();
  if (!file_.empty()) return;
  own_ = common::FileHold{::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)};
  fd_ = own_.get();
  error_ = own_ ? 0 : errno;
}

Output::~Output() = default;

bool Output::open() {
  if (is_standard()) return error_ == 0;
  struct stat status {};
  const bool is_there = common::system_calls().stat(file_.c_str(), &status) == 0;
  if (is_there && !S_ISREG(status.st_mode)) {
    own_ = common::FileHold{common::open_file(file_.c_str(), O_WRONLY | O_NOCTTY)};
    fd_ = own_.get();
    error_ = own_ ? 0 : errno;
    return error_ == 0;
  }
  file_ = checker::real_path(file_);
  temporary_ = std::make_unique<checker::TemporaryFile>(file_);
  fd_ = temporary_->fd();
  error_ = *temporary_ ? 0 : temporary_->error();
  if (error_ == 0) ::fchmod(fd_, is_there ? status.st_mode & 07777 : mode_of_new_file());
  return error_ == 0;
}

bool Output::is_terminal() const { return ::isatty(fd_) == 1; }

void Output::put(std::string_view text) {
  char* const to = room(text.size());
  std::memcpy(to, text.data(), text.size());
  put_until(to + text.size());
}

char* Output::make_room(std::size_t bytes) {
  write_all();
  if (buffer_.size() < bytes) buffer_.resize(bytes);
  return buffer_.data();
}

void Output::put_much(std::string_view text) {
  if (text.size() < kBuffer / 4) return put(text);
  write_all();
  write(text);
}

void Output::write_all() { write({buffer_.data(), std::exchange(used_, 0)}); }

void Output::write(std::string_view text) {
  while (!text.empty() && error_ == 0) {
    const ssize_t written = ::write(fd_, text.data(), text.size());
    if (written < 0 && errno != EINTR) error_ = errno;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
  if (error_ != EPIPE) return;
  // Where the signal of a closed pipe is ignored it ends the program all the same.
  std::signal(SIGPIPE, SIG_DFL);
  ::raise(SIGPIPE);
}

bool Output::finish() {
  write_all();
  if (error_ != 0 || temporary_ == nullptr) return error_ == 0;
  const bool is_there = common::system_calls().fsync(fd_) == 0 && temporary_->replace(file_) == 0;
  if (!is_there) error_ = errno;
  return is_there;
}

}  // namespace zentra
