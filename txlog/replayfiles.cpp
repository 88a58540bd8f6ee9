#include "txlog/replayfiles.h"

#include <cerrno>

#include "isam/errors.h"

namespace isam::txlog {
namespace {

int close_file(ReplayFile& file) {
  if (file.isfd < 0) return 0;
  const int isfd = file.isfd;
  file.isfd = -1;
  return isclose(isfd);
}

}  // namespace

ReplayFileRef ReplayFiles::addopfile(std::string_view name, bool varlen) {
  auto found = files_.find(name);
  if (found == files_.end()) {
    const auto file = std::make_shared<ReplayFile>();
    file->name = name;
    file->varlen = varlen;
    found = files_.emplace(file->name, file).first;
  }
  ReplayFileRef file = found->second;
  if (txoopen(*file) == 0) {
    ++file->count;
    return file;
  }
  if (file->count == 0) {
    file->gone = true;
    files_.erase(found);
  }
  return nullptr;
}

int ReplayFiles::getrisfd(const ReplayFileRef& file) {
  if (file->gone) return failed(kNotOpen);
  if (txoopen(*file) != 0) return -1;
  if (!file->in_use) used_.push_back(file);
  file->in_use = true;
  return file->isfd;
}

int ReplayFiles::lgclfile(const ReplayFileRef& file) {
  if (file->gone || --file->count > 0) return 0;
  file->gone = true;
  files_.erase(file->name);
  return close_file(*file);
}

void ReplayFiles::forget(std::string_view name) {
  const auto found = files_.find(name);
  if (found == files_.end()) return;
  const KeepError keep;
  found->second->gone = true;
  close_file(*found->second);
  files_.erase(found);
}

void ReplayFiles::rename(std::string_view from, std::string_view to) {
  const auto found = files_.find(from);
  if (found == files_.end()) return;
  const ReplayFileRef file = found->second;
  files_.erase(found);
  forget(to);
  file->name = to;
  files_.emplace(file->name, file);
}

void ReplayFiles::release_all() {
  for (const ReplayFileRef& file : used_) file->in_use = false;
  used_.clear();
}

int ReplayFiles::close_all() {
  std::int32_t reason = 0;
  for (const auto& [name, file] : files_) {
    if (close_file(*file) != 0 && reason == 0) reason = iserrno;
  }
  return reason == 0 ? 0 : failed_as(reason);
}

int ReplayFiles::txoopen(ReplayFile& file) {
  if (file.isfd >= 0) return 0;
  const int mode = ISINOUT + ISEXCLLOCK + ISANYPRIMARY + (file.varlen ? ISVARLEN : 0);
  file.isfd = isopen(file.name.c_str(), mode);
  if (file.isfd < 0 && (iserrno == EMFILE || iserrno == kTooManyFiles) && txoclose()) {
    file.isfd = isopen(file.name.c_str(), mode);
  }
  return file.isfd < 0 ? -1 : 0;
}

bool ReplayFiles::txoclose() {
  for (const auto& [name, file] : files_) {
    if (file->isfd >= 0 && !file->in_use) return close_file(*file) == 0;
  }
  return false;
}

}  // namespace isam::txlog
