#include "zentra/newpair/newpair.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "checker/interrupt.h"
#include "checker/temporaryfile.h"
#include "common/filecopy.h"
#include "common/holders.h"
#include "common/io.h"
#include "isam.h"
#include "isam/base/errors.h"
#include "isam/calls/opening.h"
#include "isam/calls/process.h"
#include "isam/files/files.h"
#include "zentra/check/deep.h"
#include "zentra/pair/readpair.h"
#include "zentra/repair/notes.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::mkdatname;
using isam::mkidxname;

constexpr int kMostMade = 100;  // runs for one name that are under way or were killed

std::string made_name(const std::string& name, int number) {
  return fmt::format("{}.new{}", name, number);
}

// Whether two names are those of one regular file; a symbolic link is none.
bool is_same_file(const std::string& a, const std::string& b) {
  struct stat one {};
  struct stat other {};
  return ::lstat(a.c_str(), &one) == 0 && ::lstat(b.c_str(), &other) == 0 && S_ISREG(one.st_mode) &&
         one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// 0, or -1 with errno.
int sync_file(const std::string& path) {
  const common::FileHold file{common::open_file(path.c_str(), O_RDWR)};
  return file ? common::system_calls().fsync(file.get()) : -1;
}

int sync_folder(const std::string& path) {
  const common::FileHold folder{common::open_file(path.c_str(), O_RDONLY | O_DIRECTORY)};
  if (!folder) return 0;  // a folder that may not be read
  const int result = common::system_calls().fsync(folder.get());
  return result != 0 && errno == EINVAL ? 0 : result;
}

// Gives a file a name that no file has: 0, or -1 with errno. Where the file system knows no second
// names it loses the one that it had, and there is a moment in which another program may take the
// name.
int give_name(const std::string& from, const std::string& to) {
  if (common::system_calls().link(from.c_str(), to.c_str()) == 0) return 0;
  if (errno != EPERM && errno != EOPNOTSUPP && errno != ENOSYS) return -1;
  if (common::name_exists(to)) {
    errno = EEXIST;
    return -1;
  }
  return common::system_calls().rename(from.c_str(), to.c_str());
}

// Whether a run may still be at work on a pair, which may lack anything.
bool is_in_use(const std::string& name) {
  const int isfd = ::isopen(name.c_str(), ISINOUT + ISEXCLLOCK + ISANYLENGTH);
  const bool in_use = isfd < 0 && iserrno == isam::kFileInUse;
  if (isfd >= 0) ::isclose(isfd);
  isam::clear_errors();
  return in_use;
}

}  // namespace

NewPair::~NewPair() {
  close();
  remove();
}

bool NewPair::fail(std::string why) {
  why_ = std::move(why);
  return false;
}

bool NewPair::fail_by_code() {
  fail(::isexplain());
  isam::clear_errors();
  return false;
}

bool NewPair::fail_by_errno(const std::string& path) {
  return fail(fmt::format("{}: {}", shown(path), std::strerror(errno)));
}

bool NewPair::is_free() {
  for (const std::string& path : {mkidxname(name_), mkdatname(name_)}) {
    if (common::name_exists(path)) return fail(fmt::format("{} is there already", shown(path)));
  }
  return true;
}

// A run that was killed between the two names has given one; behind both, the pair may be in use.
void NewPair::remove_leftovers() const {
  for (int number = 1; number <= kMostMade; ++number) {
    const std::string left = made_name(name_, number);
    const bool has_data = common::name_exists(mkdatname(left));
    if (!has_data && !common::name_exists(mkidxname(left))) continue;
    const bool is_named = is_same_file(mkidxname(left), mkidxname(name_));
    if (!is_named && is_in_use(left)) continue;
    const bool is_half_named =
        !common::name_exists(mkidxname(name_)) && is_same_file(mkdatname(left), mkdatname(name_));
    if (is_half_named) common::system_calls().unlink(mkdatname(name_).c_str());
    isam::remove_pair(left);
  }
}

bool NewPair::make(const PairShape& shape) {
  remove_leftovers();
  return is_free() && build(shape) && add_indexes(shape);
}

bool NewPair::build(const PairShape& shape) {
  isam::know_process();
  const std::int32_t width = std::exchange(::isdupsiz, shape.duplicate_width);
  keydescr primary = shape.keys.front();
  {
    const checker::SignalBlock block;
    for (int number = 1; isfd_ < 0; ++number) {
      const std::string made = made_name(name_, number);
      isam::clear_errors();
      ::isreclen = shape.least;
      const int mode = ISINOUT + ISEXCLLOCK + (shape.is_variable() ? ISVARLEN : 0);
      isfd_ = isam::build_pair(made.c_str(), shape.greatest, primary, mode, shape.node_size);
      if (isfd_ < 0 && (iserrno != EEXIST || number == kMostMade)) break;
      if (isfd_ >= 0) made_ = made;
    }
    if (!made_.empty()) {
      checker::remove_when_interrupted(mkidxname(made_));
      checker::remove_when_interrupted(mkdatname(made_));
    }
  }
  ::isdupsiz = width;
  if (isfd_ >= 0) return true;
  fail(fmt::format("{} cannot be made: {}", shown(name_), ::iserrtext(iserrno)));
  isam::clear_errors();
  return false;
}

bool NewPair::add_indexes(const PairShape& shape) {
  for (std::size_t i = 1; i < shape.keys.size(); ++i) {
    keydescr k = shape.keys[i];
    if (::isaddindex(isfd_, &k) != 0) return fail_by_code();
  }
  return shape.unique <= 1 || ::issetunique(isfd_, shape.unique) == 0 || fail_by_code();
}

void NewPair::close() {
  if (isfd_ >= 0) ::isclose(std::exchange(isfd_, -1));
}

void NewPair::remove() {
  if (made_.empty()) return;
  const checker::SignalBlock block;
  isam::remove_pair(made_);
  checker::forget_file(mkidxname(made_));
  checker::forget_file(mkdatname(made_));
  made_.clear();
}

bool NewPair::sync() {
  for (const std::string& path : {mkdatname(made_), mkidxname(made_)}) {
    if (sync_file(path) != 0) return fail_by_errno(path);
  }
  return true;
}

bool NewPair::name_files() {
  const checker::SignalBlock block;
  const std::string data = mkdatname(name_);
  const std::string index = mkidxname(name_);
  if (give_name(mkdatname(made_), data) != 0) return fail_by_errno(data);
  if (give_name(mkidxname(made_), index) != 0) {
    fail_by_errno(index);
    common::system_calls().unlink(data.c_str());
    return false;
  }
  remove();
  const std::string folder = checker::folder_of(name_);
  return sync_folder(folder) == 0 || fail_by_errno(folder);
}

bool NewPair::close_whole() {
  return isfd_ < 0 || ::isclose(std::exchange(isfd_, -1)) == 0 || fail_by_code();
}

void NewPair::make_like(int fd) {
  constexpr mode_t kPrivate = 0600;
  for (const std::string& path : {mkdatname(made_), mkidxname(made_)}) {
    const common::FileHold file{common::open_file(path.c_str(), O_RDWR)};
    if (!file || common::copy_attributes(fd, file.get()) == 0) continue;
    ::fchmod(file.get(), kPrivate);
  }
}

bool NewPair::check() {
  if (!close_whole()) return false;
  const MadeCheck made = check_made(made_);
  return made.status == Status::kSound || fail(made.why);
}

bool NewPair::publish() { return close_whole() && sync() && name_files(); }

MadeCheck check_made(const std::string& name) {
  ReadPair pair;
  if (!pair.open(name, {}) || !pair.load())
    return {.status = Status::kUnfinished, .why = pair.why()};
  Notes notes{nullptr};
  DeepCollector collector{notes, isam::RecordLocks{}};
  constexpr checker::Options kHow{.nflag = 1, .qflag = 1};
  checker::Check check(kHow, collector);
  const bool is_whole = check_whole(check, collector, &collector, [] {});
  isam::clear_errors();
  const Status status = is_whole ? collector.status() : Status::kUnfinished;
  if (status == Status::kSound) return {};
  return {.status = status, .why = "what was made does not check clean: " + notes.first()};
}

}  // namespace zentra
