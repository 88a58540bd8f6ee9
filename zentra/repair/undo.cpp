// zentra undo: puts the index of before the last repair back.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <tuple>

#include "checker/interrupt.h"
#include "checker/keptindex.h"
#include "checker/obstacle.h"
#include "checker/temporaryfile.h"
#include "checker/undodata.h"
#include "common/holders.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/files/files.h"
#include "isam/files/watching.h"
#include "zentra/command/commands.h"
#include "zentra/command/pairnames.h"
#include "zentra/command/pairrunner.h"
#include "zentra/pair/readpair.h"
#include "zentra/repair/databytes.h"
#include "zentra/report/progress.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using checker::UndoData;
using isam::filep;

constexpr char kBefore[] = ".before";
constexpr isam::Byte kNoMagic[2] = {};  // nobody takes the file for an index any more

struct UndoOptions {
  bool json = false;
  bool force = false;
  double wait = 10;
  std::string name;
};

// Why nothing was done.
struct Refusal {
  Status status;
  std::string why;
};

Refusal by_errno(const std::string& what) {
  return {Status::kUnfinished, fmt::format("{}: {}", shown(what), std::strerror(errno))};
}

// A pair that no other process has open, as a repair has it; the locks go with its end.
class OwnPair {
 public:
  OwnPair() = default;
  OwnPair(const OwnPair&) = delete;
  OwnPair& operator=(const OwnPair&) = delete;
  ~OwnPair() {
    if (is_open_) isam::freeopen(*isam::openp);
    isam::clear_errors();
  }

  // Waits at most `wait` until nobody else has it open.
  std::optional<Refusal> open(const std::string& name, std::chrono::milliseconds wait) {
    isam::clear_errors();
    for (const std::string& path : {isam::mkidxname(name), isam::mkdatname(name)}) {
      struct stat status {};
      if (common::system_calls().stat(path.c_str(), &status) != 0) return by_errno(path);
      if (!S_ISREG(status.st_mode)) {
        return Refusal{Status::kNeedsSalvage, fmt::format("{} is no file", shown(path))};
      }
    }
    isam::Open* const open = isam::allocopen();
    if (open == nullptr) return by_code();
    open->file = isam::allocfile(name, ISINOUT, isam::IndexAccess::kToWrite);
    if (open->file == nullptr) {
      isam::freeopen(*open);
      return by_code();
    }
    open->mode = ISINOUT + ISEXCLLOCK;
    open->file->mark.state = isam::MarkState::kUnneeded;
    isam::make_current(*open);
    is_open_ = true;
    const auto waits = [] { show_progress("Waiting for the lock", 0, 0, 0); };
    return isam::lkalone(wait, holder_, waits) != 0 ? by_code() : std::nullopt;
  }

 private:
  std::optional<Refusal> by_code() const {
    const std::int32_t code = iserrno;
    if (code != isam::kFileInUse) return Refusal{Status::kUnfinished, error_text(code)};
    return Refusal{Status::kInUse, "in use by " + process_text(holder_)};
  }

  bool is_open_ = false;
  pid_t holder_ = 0;
};

// The number of a kept index by what its name has behind the index's: 1 for ".before"; 0 for none.
int number_of(std::string_view rest) {
  if (!rest.starts_with(kBefore)) return 0;
  rest.remove_prefix(std::strlen(kBefore));
  if (rest.empty()) return 1;
  int number = 0;
  const auto [end, error] = std::from_chars(rest.data() + 1, rest.data() + rest.size(), number);
  const bool whole = rest[0] == '.' && error == std::errc{} && end == rest.data() + rest.size();
  return whole && number > 1 ? number : 0;
}

// The kept index of an index that was written last, of those that can be undone if there are any;
// of two of one time the higher number. Empty when there is none.
std::string newest_kept(const std::string& index) {
  const std::string folder = checker::folder_of(index);
  const std::string file = index.substr(index.rfind('/') + 1);
  std::string newest;
  std::tuple<bool, std::filesystem::file_time_type, int> rank{};
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    const std::string name = entry.path().filename().string();
    const int number = name.starts_with(file) ? number_of(name.substr(file.size())) : 0;
    const bool is_file = std::filesystem::is_regular_file(entry.symlink_status(error));
    if (number == 0 || !is_file) continue;
    const std::string path = entry.path().string();
    const std::tuple its_rank{checker::load_undo_data(path).has_value(),
                              entry.last_write_time(error), number};
    if (!newest.empty() && its_rank < rank) continue;
    newest = path;
    rank = its_rank;
  }
  return newest;
}

// Whether a file has what every index begins with: of one that --force puts back nothing else
// tells.
bool is_index(int fd) {
  isam::Dictionary dictionary{};
  return common::read_at(fd, dictionary.raw, 0) == isam::kDictionarySize &&
         dictionary.d_magic() == isam::kDictionaryMagic && dictionary.fixed_bytes_match() &&
         dictionary.d_idxsize() >= isam::kMinStoredNodeSize && dictionary.d_recsize() > 0;
}

// What is not as the repair has left it; empty when all is.
std::string what_changed(const UndoData& noted, const UndoData& now) {
  if (!(now.repaired == noted.repaired)) return "the index has changed since the repair";
  if (!(now.data == noted.data)) return "the data file has changed since the repair";
  // The copy has a time of its own.
  UndoData::Index kept = now.kept;
  kept.file.changed = noted.kept.file.changed;
  return kept == noted.kept ? "" : "the kept index has changed since the repair";
}

class Undoing {
 public:
  explicit Undoing(bool force) : force_(force) {}

  // The index that is put back; empty while none is found.
  [[nodiscard]] const std::string& kept() const { return kept_; }
  // What of the data file stays, in words; empty where nothing does.
  [[nodiscard]] const std::string& stays() const { return stays_; }
  // Whether places of the data file are put back, too.
  [[nodiscard]] bool puts_data_back() const { return !note_.changes.empty(); }
  // What --force has kept of the index that it took away.
  [[nodiscard]] const std::string& replaced() const { return replaced_.name(); }

  // Does it all, or nothing.
  std::optional<Refusal> run(const std::string& name, std::chrono::milliseconds wait) {
    index_ = checker::real_path(isam::mkidxname(name));
    kept_ = newest_kept(index_);  // for a refusal
    OwnPair pair;
    if (auto refusal = pair.open(name, wait)) return refusal;
    index_ = checker::real_path(isam::mkidxname(name));
    if (auto refusal = look()) return refusal;
    return exchange();
  }

 private:
  // Whether it may and can be done.
  std::optional<Refusal> look() {
    kept_ = newest_kept(index_);
    if (kept_.empty()) {
      return Refusal{
          Status::kUnfinished,
          fmt::format("no index of before is kept: there is no {}{}", shown(index_), kBefore)};
    }
    kept_fd_ = common::FileHold{common::open_file(kept_.c_str(), O_RDWR | O_NOFOLLOW)};
    if (!kept_fd_) return by_errno(kept_);
    noted_ = checker::load_undo_data(kept_);
    note_ = noted_changes(kept_);
    if (!note_.fault.empty()) return Refusal{Status::kUnfinished, note_.fault};
    UndoData now;
    if (checker::describe(filep->index.fd, now.repaired) != 0 ||
        checker::describe(filep->data.fd, now.data) != 0 ||
        checker::describe(kept_fd_.get(), now.kept) != 0) {
      return by_errno(index_);
    }
    // An undoing that has begun has changed it.
    if (noted_ && note_.is_undoing) now.data.changed = noted_->data.changed;
    keeps_data_time_ = noted_ && now.data == noted_->data;
    const std::string changed =
        noted_ ? what_changed(*noted_, now) : "nothing tells how the repair left the pair";
    if (!changed.empty() && !force_) {
      return Refusal{Status::kUnfinished, changed + "; --force puts the kept index back anyway"};
    }
    // What a repair has kept and noted may lack it.
    if (!changed.empty() && !is_index(kept_fd_.get())) {
      return Refusal{Status::kUnfinished, "the kept index is no index"};
    }
    if (auto refusal = look_at_note(noted_ ? noted_->kept : now.kept)) return refusal;
    if (const int error = checker::obstacle(filep->index.fd, index_); error != 0) {
      errno = error;
      return by_errno(index_);
    }
    return std::nullopt;
  }

  // `kept`: the kept index, as the repair found it.
  std::optional<Refusal> look_at_note(const UndoData::Index& kept) {
    if (note_.changes.empty()) return std::nullopt;
    if (note_.kept.stamp != kept.stamp || note_.kept.checksum != kept.checksum) {
      stays_ = shown(data_file_of(kept_)) + " belongs to another repair";
      if (!force_) {
        return Refusal{Status::kUnfinished, stays_ + "; --force leaves the data file as it is"};
      }
      note_.changes.clear();
    }
    if (force_ || are_there(filep->data.fd, note_.changes)) return std::nullopt;
    return Refusal{Status::kUnfinished, "the data file has changed since the repair"};
  }

  // Puts the kept index in the place of the other, in one step.
  std::optional<Refusal> exchange() {
    const auto& calls = common::system_calls();
    constexpr const char* kNotKept = "the index that would be replaced cannot be kept";
    if (calls.fsync(kept_fd_.get()) != 0) return by_errno(kept_);
    if (force_ && !replaced_.take(filep->index.fd, index_)) return by_errno(kNotKept);
    const checker::SignalBlock block;
    struct stat named {};
    if (calls.stat(index_.c_str(), &named) != 0) return by_errno(index_);
    if (named.st_dev != filep->index.device || named.st_ino != filep->index.inode) {
      return Refusal{Status::kUnfinished, "the index was replaced by another file meanwhile"};
    }
    if (force_ && replaced_.show() != 0) return by_errno(kNotKept);
    if (auto refusal = put_data_back()) return refusal;
    if (calls.rename(kept_.c_str(), index_.c_str()) != 0) return change_data_again(by_errno(kept_));
    replaced_.keep();
    // Who has opened the repaired index and waits for its locks does not go on with it.
    static_cast<void>(common::write_at(filep->index.fd, kNoMagic, 0));
    tidy_up();
    return std::nullopt;
  }

  // Gives records back that the repair has dropped.
  std::optional<Refusal> put_data_back() {
    if (note_.changes.empty()) return std::nullopt;
    if (note_undoing(kept_, note_) != 0) return by_errno(data_file_of(kept_));
    const int fd = filep->data.fd;
    if (data_.run(fd, note_.changes) != 0) {
      return change_data_again(by_errno(isam::mkdatname(filep->name)));
    }
    set_data_time();
    if (data_.others() > 0) {
      stays_ = fmt::format("{} place(s) of the data file have changed since the repair and stay",
                           grouped(data_.others()));
    }
    return std::nullopt;
  }

  // Makes the data file what the repair has left, since the index stays what that has left.
  Refusal change_data_again(Refusal refusal) {
    if (note_.changes.empty()) return refusal;
    if (data_.make_again(filep->data.fd, note_.changes) != 0) {
      refusal.why += "; records are back in the data file already: run zentra undo again";
    } else if (!note_.is_undoing) {
      note_no_undoing(kept_, note_);
    }
    set_data_time();
    return refusal;
  }

  // The file keeps the time that the repair has noted, so that the undoing can be done again.
  void set_data_time() const {
    if (!keeps_data_time_) return;
    const timespec times[2] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, noted_->data.changed};
    ::futimens(filep->data.fd, times);
  }

  // The file is an index again, with its time of before: the repair before may be undone, too.
  // Nothing depends on it otherwise.
  void tidy_up() {
    checker::remove_undo_data(kept_fd_.get(), kept_);
    if (!note_.changes.empty()) common::system_calls().unlink(data_file_of(kept_).c_str());
    if (noted_) {
      const timespec times[2] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, noted_->kept.file.changed};
      ::futimens(kept_fd_.get(), times);
    }
    const common::FileHold folder{
        common::open_file(checker::folder_of(index_).c_str(), O_RDONLY | O_DIRECTORY)};
    if (folder) common::system_calls().fsync(folder.get());
  }

  bool force_;
  std::string index_;  // the file itself, past symbolic links
  std::string kept_;
  checker::KeptIndex replaced_;
  common::FileHold kept_fd_;
  std::optional<UndoData> noted_;
  DataNote note_;  // what the repair has changed in the data file
  bool keeps_data_time_ = false;
  TakingBack data_;
  std::string stays_;
};

Outcome undo(const UndoOptions& options, const std::string& name, Report& report) {
  Undoing undoing{options.force};
  const auto refusal = undoing.run(name, as_time(options.wait));
  Fields fields;
  if (refusal) {
    if (!undoing.kept().empty()) fields.emplace_back("kept", FileBytes{.bytes = undoing.kept()});
    report.pair_ends(refusal->status, "nothing is undone: " + refusal->why, fields);
    return {.status = refusal->status};
  }
  if (!undoing.replaced().empty()) {
    fields.emplace_back("replaced", FileBytes{.bytes = undoing.replaced()});
  }
  std::string text = undoing.puts_data_back()
                         ? "index and data file are those of before the last repair"
                         : "the index is that of before the last repair";
  if (!undoing.stays().empty()) text += "; " + undoing.stays();
  report.pair_ends(Status::kSound, text, fields);
  return {.status = Status::kSound};
}

}  // namespace

std::function<int()> prepare_undo(Arguments& arguments) {
  const auto options = std::make_shared<UndoOptions>();
  arguments.flag("--force", options->force, "also when something has changed since the repair");
  arguments.json(options->json);
  arguments.wait(options->wait);
  arguments.pair(options->name);
  return [options] {
    return run_pairs({.command = "undo",
                      .json = options->json,
                      .jobs = 1,
                      .pairs = pairs_named({options->name}),
                      .good = kVerdictDone,
                      .changes = true,
                      .work = [&](const std::string& name, Report& report) {
                        return undo(*options, name, report);
                      }});
  };
}

}  // namespace zentra
