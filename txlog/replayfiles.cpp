#include "txlog/replayfiles.h"

#include <algorithm>
#include <cerrno>

#include "isam/base/errors.h"
#include "isam/calls/opening.h"

namespace isam::txlog {
namespace {

// Pairs are opened also with the mark of unfinished changes: they are recovered as they are.
class OpensMarked {
 public:
  OpensMarked() { opens_marked = true; }
  OpensMarked(const OpensMarked&) = delete;
  OpensMarked& operator=(const OpensMarked&) = delete;
  ~OpensMarked() { opens_marked = false; }
};

}  // namespace

ReplayFile& ReplayFiles::make(std::string_view name) {
  ReplayFile& file = files_.emplace_back();
  file.id = static_cast<std::uint32_t>(files_.size());
  file.name = name;
  return file;
}

ReplayFile& ReplayFiles::named(std::string_view name) {
  const auto found = names_.find(name);
  if (found != names_.end()) return *found->second;
  return *names_.emplace(name, &make(name)).first->second;
}

ReplayFile& ReplayFiles::built(std::string_view name) {
  ReplayFile& file = make(name);
  names_.insert_or_assign(std::string{name}, &file);
  return file;
}

void ReplayFiles::renamed(ReplayFile& file, std::string_view name) {
  names_.insert_or_assign(std::string{name}, &file);
}

int ReplayFiles::addopfile(ReplayFile& file, std::string_view name, bool varlen) {
  if (file.isfd < 0) {
    file.name = name;
    file.varlen = varlen;
    file.gone = false;
  }
  if (txoopen(file) != 0) return -1;
  ++file.count;
  return 0;
}

int ReplayFiles::getrisfd(ReplayFile& file) {
  if (file.gone) return failed(kNotOpen);
  if (txoopen(file) != 0) return -1;
  if (!file.in_use) used_.push_back(&file);
  file.in_use = true;
  return file.isfd;
}

int ReplayFiles::lgclfile(ReplayFile& file) {
  if (file.gone || --file.count > 0) return 0;
  return close_file(file);
}

void ReplayFiles::txoupdate(ReplayFile& file, int isfd) {
  file.isfd = isfd;
  if (isfd < 0) std::erase(open_, &file);
}

void ReplayFiles::forget(ReplayFile& file) {
  const KeepError keep;
  file.gone = true;
  file.count = 0;
  close_file(file);
}

void ReplayFiles::release_all() {
  for (ReplayFile* const file : used_) file->in_use = false;
  used_.clear();
}

int ReplayFiles::close_all() {
  std::int32_t reason = 0;
  while (!open_.empty()) {
    if (close_file(*open_.back()) != 0 && reason == 0) reason = iserrno;
  }
  return reason == 0 ? 0 : failed_as(reason);
}

int ReplayFiles::txoopen(ReplayFile& file) {
  if (file.isfd >= 0) return 0;
  const OpensMarked as_it_is;
  // The name may have been another file's before, which is still open.
  const auto namesake = std::ranges::find(open_, file.name, &ReplayFile::name);
  if (namesake != open_.end()) close_file(**namesake);
  const int mode = ISINOUT + ISEXCLLOCK + ISANYPRIMARY + (file.varlen ? ISVARLEN : 0);
  file.isfd = isopen(file.name.c_str(), mode);
  if (file.isfd < 0 && (iserrno == EMFILE || iserrno == kTooManyFiles) && txoclose()) {
    file.isfd = isopen(file.name.c_str(), mode);
  }
  if (file.isfd < 0) return -1;
  open_.push_back(&file);
  return 0;
}

bool ReplayFiles::txoclose() {
  const auto idle = std::ranges::find(open_, false, &ReplayFile::in_use);
  return idle != open_.end() && close_file(**idle) == 0;
}

int ReplayFiles::close_file(ReplayFile& file) {
  if (file.isfd < 0) return 0;
  const int isfd = file.isfd;
  txoupdate(file, -1);
  return isclose(isfd);
}

}  // namespace isam::txlog
