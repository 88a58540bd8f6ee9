#include "checker/reportfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "checker/progress.h"
#include "checker/temporaryfile.h"
#include "common/io.h"
#include "common/printable.h"
#include "isam/files/files.h"

namespace checker {
namespace {

constexpr std::size_t kMostWaiting = 65536;
constexpr std::string_view kBeginning = "{\"schema\":";  // of the first line

// While it exists a write past the limit of a file's size fails, instead of ending the program.
class LimitIsNoSignal {
 public:
  LimitIsNoSignal() {
    ::sigemptyset(&set_);
    ::sigaddset(&set_, SIGXFSZ);
    ::sigprocmask(SIG_BLOCK, &set_, &before_);
  }
  LimitIsNoSignal(const LimitIsNoSignal&) = delete;
  LimitIsNoSignal& operator=(const LimitIsNoSignal&) = delete;
  ~LimitIsNoSignal() {
    constexpr timespec kNow{};
    if (::sigismember(&before_, SIGXFSZ) == 0) ::sigtimedwait(&set_, nullptr, &kNow);
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  sigset_t set_;
  sigset_t before_;
};

common::ConstBytes bytes_of(std::string_view text) {
  return {reinterpret_cast<const common::Byte*>(text.data()), text.size()};
}

bool is_same(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether a file has the name of a kept index of the pair.
bool is_kept_index(const std::string& path, const std::string& pair) {
  const auto in_folder = [](const std::string& whole) {
    return whole.substr(whole.rfind('/') + 1);
  };
  const std::string index = isam::mkidxname(pair);
  if (!in_folder(path).starts_with(in_folder(index) + ".before")) return false;
  struct stat own {};
  struct stat other {};
  return common::system_calls().stat(folder_of(path).c_str(), &own) == 0 &&
         common::system_calls().stat(folder_of(index).c_str(), &other) == 0 && is_same(own, other);
}

// Whether it is a file that the run reads or writes itself.
bool is_taken(const std::string& path, const struct stat& file,
              const std::vector<std::string>& pairs) {
  struct stat other {};
  for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
    if (common::system_calls().fstat(fd, &other) == 0 && is_same(file, other)) return true;
  }
  for (const std::string& pair : pairs) {
    for (const std::string& name : {isam::mkidxname(pair), isam::mkdatname(pair), pair + ".IDX"}) {
      if (common::system_calls().stat(name.c_str(), &other) == 0 && is_same(file, other)) {
        return true;
      }
    }
    if (is_kept_index(path, pair)) return true;
  }
  return false;
}

}  // namespace

ReportFile::ReportFile(std::string path, const std::vector<std::string>& pairs)
    : path_(std::move(path)) {
  open(pairs);
}

void ReportFile::open(const std::vector<std::string>& pairs) {
  constexpr int kFlags = O_RDWR | O_APPEND | O_NONBLOCK | O_NOCTTY;
  constexpr mode_t kForAll = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
  struct stat status {};
  bool is_new = common::system_calls().stat(path_.c_str(), &status) != 0;
  if (is_new) {
    fd_ = common::FileHold{common::open_file(path_.c_str(), kFlags | O_CREAT | O_EXCL, kForAll)};
    // Another run may have made it meanwhile.
    is_new = fd_ || errno != EEXIST || common::system_calls().stat(path_.c_str(), &status) != 0;
  }
  if (!is_new) {
    // What is no regular file is not even opened: that may block, or do something.
    if (!S_ISREG(status.st_mode)) return refuse("is no file");
    fd_ = common::FileHold{common::open_file(path_.c_str(), kFlags, 0)};
  }
  if (!fd_ || common::system_calls().fstat(fd_.get(), &status) != 0) return give_up(errno);
  if (is_taken(path_, status, pairs)) {
    if (is_new) common::system_calls().unlink(path_.c_str());
    return refuse("is needed for something else");
  }
  if (!S_ISREG(status.st_mode) || !begins_as_report()) return refuse("holds something else");
}

// Whether what is there is a report; a line that was torn off gets its end.
bool ReportFile::begins_as_report() {
  std::array<common::Byte, kBeginning.size()> begin{};
  const std::int64_t size = common::file_size(fd_.get());
  const ssize_t got = common::read_at(fd_.get(), begin, 0);
  if (got == 0) return true;
  if (std::memcmp(begin.data(), kBeginning.data(), begin.size()) != 0) return false;
  std::array<common::Byte, 1> last{};
  if (common::read_at(fd_.get(), last, size - 1) == 1 && last[0] != '\n') append("\n");
  return true;
}

void ReportFile::append(std::string_view line) {
  if (!fd_) return;
  waiting_ += line;
  if (waiting_.size() >= kMostWaiting) flush();
}

void ReportFile::flush() {
  if (!fd_ || waiting_.empty()) return;
  const LimitIsNoSignal quiet;
  // The offset means nothing to a file that is appended to.
  if (common::write_at(fd_.get(), bytes_of(waiting_), 0) != 0) give_up(errno);
  waiting_.clear();
}

void ReportFile::give_up(int error) { refuse(std::strerror(error)); }

// Without memory to show the path with it goes unnamed.
void ReportFile::refuse(const char* why) {
  fd_ = {};
  Progress::erase();
  std::string path;
  try {
    path = common::shown(path_);
  } catch (const std::bad_alloc&) {
    path.clear();
  }
  std::fprintf(stderr, "kestro: no report in %s: %s\n", path.c_str(), why);
}

}  // namespace checker
