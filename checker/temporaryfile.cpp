#include "checker/temporaryfile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "checker/interrupt.h"
#include "common/io.h"
#include "common/number.h"

namespace checker {
namespace {

constexpr mode_t kPrivate = 0600;
constexpr std::string_view kOwnSuffix = ".kestro-";
constexpr std::string_view kUnfinished = "new";  // until the inode number is known

std::string own_prefix(const std::string& index) { return index + std::string(kOwnSuffix); }

// Whether a file without a name can be named later: link_open() does it through this folder.
bool may_be_nameless() { return ::access("/proc/self/fd", X_OK) == 0; }

bool lock(int fd) { return ::flock(fd, LOCK_EX | LOCK_NB) == 0; }

}  // namespace

std::string folder_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

TemporaryFile::TemporaryFile(std::string index) : index_(std::move(index)) {
  errno = EOPNOTSUPP;  // the answer when the system is not asked
  if (may_be_nameless()) {
    fd_ = common::FileHold{
        common::open_file(folder_of(index_).c_str(), O_TMPFILE | O_RDWR, kPrivate)};
  }
  // The system's answers when it cannot make a file without a name.
  if (!fd_ && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL || errno == ENOENT)) {
    make_with_name();
  }
  if (!fd_) error_ = errno;
  if (fd_) lock(fd_.get());
}

TemporaryFile::~TemporaryFile() {
  if (!keeps_name_) withdraw();
}

// The own name holds the inode number, which is not known before the file is made. So the file is
// made as ".kestro-new" and renamed. Signals wait meanwhile: a signal removes the file by the name
// that set_name() noted, which must be the one that the file has.
void TemporaryFile::make_with_name() {
  const std::string first = own_prefix(index_) + std::string(kUnfinished);
  const SignalBlock block;
  fd_ = common::FileHold{common::open_file(first.c_str(), O_RDWR | O_CREAT | O_EXCL, kPrivate)};
  if (!fd_) return;
  set_name(first);
  const std::string name = own_name();
  struct stat status {};
  if (::lstat(name.c_str(), &status) == 0) {  // rename would replace that file
    errno = EEXIST;
  } else if (common::system_calls().rename(first.c_str(), name.c_str()) == 0) {
    set_name(name);
    return;
  }
  const int error = errno;
  withdraw();
  fd_ = {};
  errno = error;
}

std::string TemporaryFile::own_name() const {
  struct stat status {};
  common::system_calls().fstat(fd(), &status);
  return own_prefix(index_) + std::to_string(status.st_ino);
}

void TemporaryFile::set_name(std::string name) {
  if (!name_.empty()) forget_file(name_);
  name_ = std::move(name);
  if (!name_.empty()) remove_when_interrupted(name_);
}

int TemporaryFile::link_to(const std::string& name) const {
  return name_.empty() ? common::system_calls().link_open(fd(), name.c_str())
                       : common::system_calls().link(name_.c_str(), name.c_str());
}

int TemporaryFile::become(const std::string& name) {
  const SignalBlock block;
  if (link_to(name) != 0) return -1;
  if (!name_.empty()) common::system_calls().unlink(name_.c_str());
  set_name(name);
  keeps_name_ = true;
  return 0;
}

void TemporaryFile::keep() { forget_file(name_); }

int TemporaryFile::replace(const std::string& name) {
  const SignalBlock block;
  if (name_.empty()) {
    const std::string own = own_name();
    if (link_to(own) != 0) return -1;
    set_name(own);
  }
  if (common::system_calls().rename(name_.c_str(), name.c_str()) != 0) return -1;
  set_name({});
  return 0;
}

void TemporaryFile::withdraw() {
  keeps_name_ = false;
  if (name_.empty()) return;
  const int error = errno;
  common::system_calls().unlink(name_.c_str());
  set_name({});
  errno = error;
}

namespace {

// Whether a file is one that this program made and nobody uses any more. `number` is what stands
// behind ".kestro-" in its name, `index` the status of the index beside it.
bool is_leftover(const std::string& path, std::string_view number, const struct stat& index) {
  const common::FileHold file{common::open_file(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK)};
  struct stat status {};
  if (!file || common::system_calls().fstat(file.get(), &status) != 0) return false;
  const bool numbered = number == std::to_string(status.st_ino);
  const bool unfinished = number == kUnfinished && status.st_size == 0;
  // A run that was killed inside become() may have left its file with two names: the own one, with
  // the number, and the one that the file was to get. Any other file with several names is not this
  // program's.
  return S_ISREG(status.st_mode) && status.st_nlink <= (numbered ? 2 : 1) &&
         (numbered || unfinished) &&
         (status.st_uid == index.st_uid || status.st_uid == ::geteuid()) && lock(file.get());
}

// The names in a folder that look like one of ours, as of the first call for it: a run over many
// pairs of one folder reads it once.
const std::vector<std::string>& own_names_in(const std::string& folder) {
  static std::string known;  // the folder that `names` are of
  static std::vector<std::string> names;
  if (folder == known) return names;
  known = folder;
  names.clear();
  const std::unique_ptr<DIR, int (*)(DIR*)> listing{::opendir(folder.c_str()), ::closedir};
  if (!listing) return names;
  while (const dirent* entry = ::readdir(listing.get())) {
    const std::string_view name = entry->d_name;
    if (name.find(kOwnSuffix) != std::string_view::npos) names.emplace_back(name);
  }
  return names;
}

}  // namespace

void remove_leftovers(const std::string& index) {
  struct stat status {};
  if (common::system_calls().stat(index.c_str(), &status) != 0) return;
  const std::string folder = folder_of(index);
  const std::string prefix = own_prefix(index);
  for (const std::string& name : own_names_in(folder)) {
    const std::string path = folder + name;
    if (!path.starts_with(prefix)) continue;
    if (is_leftover(path, std::string_view{path}.substr(prefix.size()), status)) {
      common::system_calls().unlink(path.c_str());
    }
  }
}

}  // namespace checker
