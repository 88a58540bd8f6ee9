#include "zentra/pair/readpair.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

#include "checker/check.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/files/dictionary.h"
#include "isam/files/files.h"
#include "isam/files/watching.h"
#include "zentra/pair/readahead.h"
#include "zentra/report/progress.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using std::chrono::steady_clock;

bool leads_to(const std::string& path, const isam::PairFile& file) {
  struct stat status {};
  return common::system_calls().stat(path.c_str(), &status) == 0 && status.st_dev == file.device &&
         status.st_ino == file.inode;
}

}  // namespace

std::string process_text(pid_t process) {
  if (process <= 0) return "unknown";
  std::ifstream file(fmt::format("/proc/{}/comm", process));
  std::string name;
  std::getline(file, name);
  return name.empty() ? fmt::format("process {}", process)
                      : fmt::format("process {} ({})", process, shown(name));
}

bool ReadPair::refuse(Status status, std::string why) {
  status_ = status;
  why_ = std::move(why);
  isam::clear_errors();
  return false;
}

bool ReadPair::refuse_by_code(const char* what) {
  const std::int32_t code = iserrno;
  if (code == isam::kFileInUse) {
    return refuse(Status::kInUse, "in use by " + process_text(holder_));
  }
  const bool of_system = checker::is_of_system(code);
  return refuse(of_system ? Status::kUnfinished : Status::kNeedsSalvage,
                fmt::format("{}: {}", what, error_text(code)));
}

bool ReadPair::is_file(const std::string& path) {
  struct stat status {};
  if (common::system_calls().stat(path.c_str(), &status) != 0) {
    return refuse(Status::kUnfinished, fmt::format("{}: {}", shown(path), std::strerror(errno)));
  }
  if (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode)) return true;
  return refuse(Status::kNeedsSalvage, fmt::format("no pair: {} is no file", shown(path)));
}

bool ReadPair::open_files(const std::string& name) {
  if (!is_file(isam::mkidxname(name)) || !is_file(isam::mkdatname(name))) return false;
  isam::clear_errors();
  isam::Open* const open = isam::allocopen();
  if (open == nullptr) return refuse_by_code("cannot be opened");
  open->file = isam::allocfile(name, ISINPUT, isam::IndexAccess::kToRead);
  if (open->file == nullptr) {
    isam::freeopen(*open);
    return refuse_by_code("cannot be opened");
  }
  open->mode = ISINPUT + ISMANULOCK;
  open->file->mark.state = isam::MarkState::kUnneeded;
  isam::make_current(*open);
  open_ = open;
  return true;
}

bool ReadPair::lock(std::chrono::milliseconds wait) {
  const auto waits = [] { show_progress("Waiting for the lock", 0, 0, 0); };
  if (isam::lkwatch(wait, holder_, waits) != 0) {
    return refuse_by_code("cannot be locked");
  }
  locked_ = steady_clock::now();
  return true;
}

bool ReadPair::open(const std::string& name, std::chrono::milliseconds wait, Look look) {
  constexpr int kMostTries = 100;
  status_ = Status::kSound;
  for (int tries = 0; tries < kMostTries; ++tries) {
    if (!open_files(name)) return false;
    if (look == Look::kAll) read_ahead();
    if (!lock(wait)) return false;
    // A repair or clustering may have put other files in their place meanwhile.
    if (leads_to(isam::mkidxname(name), isam::filep->index) &&
        leads_to(isam::mkdatname(name), isam::filep->data)) {
      return true;
    }
    close();
  }
  return refuse(Status::kUnfinished, "its files change again and again");
}

bool ReadPair::load() {
  if (isam::dictread() != 0) {
    const std::int32_t code = iserrno;
    return refuse(checker::is_of_system(code) ? Status::kUnfinished : Status::kNeedsSalvage,
                  checker::dictionary_error_text(code));
  }
  isam::filep->cached.stamp = isam::openp->stamp = isam::dictp->d_modcount();
  return true;
}

bool ReadPair::take_geometry() {
  isam::Geometry& geometry = isam::filep->geometry;
  geometry.idxsize = isam::dictp->d_idxsize();
  geometry.reclen = isam::dictp->d_recsize();
  geometry.maxreclen = isam::dictp->d_maxrecsize();
  geometry.varlen = geometry.maxreclen != 0;
  if (!geometry.varlen) geometry.maxreclen = geometry.reclen;
  const bool is_usable = geometry.reclen > 0 && geometry.maxreclen >= geometry.reclen;
  return is_usable || refuse(Status::kNeedsSalvage, "the dictionary tells no record length");
}

void ReadPair::make_current() { isam::make_current(*open_); }

void ReadPair::let_go() {
  isam::lkunwatch();
  released_ = steady_clock::now();
}

void ReadPair::close() {
  if (open_ == nullptr) return;
  isam::freeopen(*std::exchange(open_, nullptr));  // the locks go with the descriptors
  isam::clear_errors();
}

Fields tell_refusal(const ReadPair& pair, Report& report) {
  if (pair.status() == Status::kNeedsSalvage) {
    report.entry({.code = "pair.none", .status = pair.status(), .text = pair.why()});
  }
  if (pair.status() != Status::kInUse) return {};
  return {{"process", std::int64_t{pair.holder()}}};
}

double ReadPair::seconds_held() const {
  const auto end = released_.value_or(steady_clock::now());
  return std::chrono::duration<double>(end - locked_).count();
}

}  // namespace zentra
