// zentra reindex: an index file for a data file that has none.
//
// It is made under another name, beside a symbolic link to the data file, checked as a pair, and
// gets its own name when it is complete. The data file is only read.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "checker/driver.h"
#include "checker/interrupt.h"
#include "checker/temporaryfile.h"
#include "checker/undodata.h"
#include "common/filecopy.h"
#include "common/holders.h"
#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/base/format.h"
#include "isam/calls/call.h"
#include "isam/calls/opening.h"
#include "isam/calls/process.h"
#include "isam/files/files.h"
#include "isam/keys/keychain.h"
#include "isam/records/freelists.h"
#include "zentra/command/commands.h"
#include "zentra/command/pairrunner.h"
#include "zentra/keys/keysfile.h"
#include "zentra/keys/newkeys.h"
#include "zentra/newpair/newpair.h"
#include "zentra/pair/pairshape.h"
#include "zentra/pair/readpair.h"
#include "zentra/report/progress.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::mkdatname;
using isam::mkidxname;

constexpr int kMostKept = 10000;  // indexes of before
constexpr int kHow = ISINOUT + ISEXCLLOCK + ISANYPRIMARY + ISANYLENGTH;

struct ReindexOptions {
  bool json = false;
  bool force = false;
  double wait = 10;
  int length = 0;
  std::vector<std::string> keys;
  std::string keys_file;
  std::string like;
  std::string name;
};

class Reindexing {
 public:
  Reindexing(const ReindexOptions& options, std::string name)
      : options_(options), name_(std::move(name)), made_(name_ + ".reindex") {}
  Reindexing(const Reindexing&) = delete;
  Reindexing& operator=(const Reindexing&) = delete;
  ~Reindexing() {
    if (isfd_ >= 0) ::isclose(isfd_);
    remove_made();
  }

  Status run() {
    for (const auto step :
         {&Reindexing::look, &Reindexing::find_shape, &Reindexing::make, &Reindexing::count_records,
          &Reindexing::add_indexes, &Reindexing::check, &Reindexing::publish}) {
      const Status status = (this->*step)();
      if (status != Status::kSound) return status;
    }
    return Status::kSound;
  }

  [[nodiscard]] const std::string& why() const { return why_; }
  [[nodiscard]] const std::string& kept() const { return kept_; }
  [[nodiscard]] std::int64_t records() const { return records_; }
  [[nodiscard]] std::size_t indexes() const { return shape_.keys.size(); }

 private:
  Status refuse(Status status, std::string why) {
    why_ = std::move(why);
    isam::clear_errors();
    return status;
  }
  Status refuse_errno(const std::string& path) {
    return refuse(Status::kUnfinished, fmt::format("{}: {}", shown(path), std::strerror(errno)));
  }
  Status refuse_code() {
    const bool is_damage = iserrno == isam::kCorrupted || iserrno == isam::kDuplicate;
    return refuse(is_damage ? Status::kDamaged : Status::kUnfinished, ::isexplain());
  }

  Status look() {
    struct stat status {};
    if (common::system_calls().stat(mkdatname(name_).c_str(), &status) != 0) {
      return refuse_errno(mkdatname(name_));
    }
    if (!S_ISREG(status.st_mode)) {
      return refuse(Status::kUnfinished, shown(mkdatname(name_)) + " is no file");
    }
    data_size_ = status.st_size;
    replaces_ = common::name_exists(mkidxname(name_));
    if (!replaces_) return Status::kSound;
    if (!options_.force) {
      return refuse(Status::kUnfinished,
                    shown(mkidxname(name_)) +
                        " is there; --force makes another and keeps it as the index of before");
    }
    const int isfd = ::isopen(name_.c_str(), kHow);
    const bool in_use = isfd < 0 && iserrno == isam::kFileInUse;
    if (isfd >= 0) ::isclose(isfd);
    if (in_use) return refuse(Status::kInUse, "it is in use");
    isam::clear_errors();
    return Status::kSound;
  }

  Status take_keys(NewKeys keys) {
    if (!keys.why.empty()) return refuse(keys.status, keys.why);
    shape_.keys = std::move(keys.keys);
    return Status::kSound;
  }

  Status like() {
    std::string base = options_.like;
    checker::cut_suffix(base);
    ReadPair pair;
    LikeShape like = shape_like(pair, base, as_time(options_.wait));
    if (!like.shape) return refuse(like.status, like.why);
    shape_ = std::move(*like.shape);
    return Status::kSound;
  }

  Status find_shape() {
    Status status = Status::kSound;
    if (!options_.like.empty()) status = like();
    if (!options_.keys_file.empty()) status = take_keys(keys_of_file(options_.keys_file));
    for (const std::string& word : options_.keys) {
      KeyOfLine read = key_of_line(word);
      if (!read.why.empty()) {
        return refuse(Status::kUnfinished, fmt::format("--key {}: {}", shown(word), read.why));
      }
      shape_.keys.push_back(read.key);
    }
    if (status != Status::kSound) return status;
    if (options_.length > 0) shape_.least = shape_.greatest = options_.length;
    if (shape_.least == 0) return refuse(Status::kUnfinished, "--length tells that of a record");
    if (shape_.is_variable()) {
      return refuse(Status::kNeedsSalvage,
                    "records of variable length have their rest in the index file: zentra salvage");
    }
    const std::string fault = shape_fault(shape_);
    return fault.empty() ? Status::kSound : refuse(Status::kUnfinished, fault);
  }

  // An empty pair in the order of record numbers, whose data file gives way to a link.
  Status make() {
    isam::know_process();
    const checker::SignalBlock block;
    remove_made();
    keydescr by_number{};
    isam::clear_errors();
    const std::int32_t width = std::exchange(::isdupsiz, shape_.duplicate_width);
    isfd_ = isam::build_pair(made_.c_str(), shape_.least, by_number, kHow, shape_.node_size);
    ::isdupsiz = width;
    if (isfd_ < 0) return refuse_code();
    checker::remove_when_interrupted(mkidxname(made_));
    checker::remove_when_interrupted(mkdatname(made_));
    if (::isclose(std::exchange(isfd_, -1)) != 0) return refuse_code();
    const std::string data = mkdatname(name_);
    const std::string target = data.substr(data.rfind('/') + 1);
    if (common::system_calls().unlink(mkdatname(made_).c_str()) != 0 ||
        ::symlink(target.c_str(), mkdatname(made_).c_str()) != 0) {
      return refuse_errno(mkdatname(made_));
    }
    isfd_ = ::isopen(made_.c_str(), kHow);
    return isfd_ >= 0 ? Status::kSound : refuse_code();
  }

  struct Run {
    std::int32_t first;
    std::int32_t last;
  };

  // Lists the numbers before the last record's: the lowest one is used first.
  static bool list_free(const std::vector<Run>& free, std::int32_t last) {
    for (auto run = free.rbegin(); run != free.rend(); ++run) {
      for (std::int32_t number = std::min(run->last, last); number >= run->first; --number) {
        if (isam::freerec(number, isam::FreeList::kRecords) != 0) return false;
      }
    }
    return true;
  }

  // The state of each slot: the last that is present ends the file, absent ones before it are free.
  Status count_records() {
    isam::Call call{isfd_, {.access = isam::Access::kToWrite}};
    if (!call) return refuse_code();
    const std::int64_t size = isam::slot_size();
    const std::int64_t slots = std::min<std::int64_t>(data_size_ / size, INT32_MAX - 1);
    std::int32_t last = 0;
    std::vector<Run> free;
    std::int64_t odd = 0;
    constexpr std::size_t kPiece = std::size_t{1} << 20;
    const std::size_t at_once = std::max<std::size_t>(kPiece / static_cast<std::size_t>(size), 1);
    std::vector<isam::Byte> piece(at_once * static_cast<std::size_t>(size));
    for (std::int64_t slot = 0; slot < slots;) {
      const ssize_t got = common::read_at(isam::filep->data.fd, piece, slot * size);
      if (got < 0) return refuse_errno(mkdatname(name_));
      const std::int64_t end = std::min<std::int64_t>(slots, slot + got / size);
      if (end == slot) break;
      for (std::int64_t i = 0; slot < end; ++slot, ++i) {
        const isam::Byte state = piece[static_cast<std::size_t>((i + 1) * size - 1)];
        const auto number = static_cast<std::int32_t>(slot) + 1;
        records_ += state == isam::kRecordPresent ? 1 : 0;
        odd += state != isam::kRecordPresent && state != isam::kRecordAbsent ? 1 : 0;
        if (state == isam::kRecordPresent) last = number;
        if (state != isam::kRecordAbsent) continue;
        if (free.empty() || free.back().last + 1 != number) free.push_back({number, number});
        free.back().last = number;
      }
    }
    if (odd > 0) {
      return refuse(
          Status::kDamaged,
          fmt::format("{} slot(s) are neither records nor free, by a record length of {}; "
                      "zentra salvage takes what are records",
                      grouped(odd), shape_.least));
    }
    isam::dictp->set_d_nextdata(last);
    isam::dictmodify();
    if (!list_free(free, last)) return refuse_code();
    return call.end() == 0 ? Status::kSound : refuse_code();
  }

  bool drop_order_of_numbers() {
    isam::Call call{isfd_, {.access = isam::Access::kToWrite}};
    return call && isam::kyremove(1) == 0 && call.end() == 0;
  }

  Status add_indexes() {
    for (const keydescr& each : shape_.keys) {
      keydescr k = each;
      if (k.nparts == 0) continue;
      show_progress("Making an index", 0, 0, 0);
      if (::isaddindex(isfd_, &k) != 0) {
        if (iserrno != isam::kDuplicate) return refuse_code();
        return refuse(Status::kDamaged,
                      fmt::format("records have equal keys in index {}; with dups it could be made",
                                  line_of(each)));
      }
    }
    if (shape_.keys.front().nparts > 0 && !drop_order_of_numbers()) return refuse_code();
    if (shape_.unique > 1 && ::issetunique(isfd_, shape_.unique) != 0) return refuse_code();
    return ::isclose(std::exchange(isfd_, -1)) == 0 ? Status::kSound : refuse_code();
  }

  Status check() {
    const MadeCheck made = check_made(made_);
    return made.status == Status::kSound ? made.status : refuse(made.status, made.why);
  }

  // The index that there was gets another name first, and has both for a moment.
  Status keep_before() {
    const std::string index = mkidxname(name_);
    for (int number = 1; number <= kMostKept; ++number) {
      kept_ = index + ".before" + (number == 1 ? "" : fmt::format(".{}", number));
      if (common::system_calls().link(index.c_str(), kept_.c_str()) == 0) return Status::kSound;
      if (errno != EEXIST) break;
    }
    const std::string path = std::exchange(kept_, "");
    return refuse_errno(path);
  }

  Status publish() {
    const std::string made = mkidxname(made_);
    const std::string index = mkidxname(name_);
    const common::FileHold file{common::open_file(made.c_str(), O_RDWR)};
    if (!file || common::system_calls().fsync(file.get()) != 0) return refuse_errno(made);
    const common::FileHold data{common::open_file(mkdatname(name_).c_str(), O_RDONLY)};
    const common::FileHold old{common::open_file(index.c_str(), O_RDWR | O_NOFOLLOW)};
    static_cast<void>(common::copy_attributes((old ? old : data).get(), file.get()));
    checker::UndoData noted;  // for zentra undo
    const bool is_noted = old && checker::describe(file.get(), noted.repaired) == 0 &&
                          checker::describe(old.get(), noted.kept) == 0 &&
                          checker::describe(data.get(), noted.data) == 0;
    const checker::SignalBlock block;
    if (replaces_) {
      const Status status = keep_before();
      if (status != Status::kSound) return status;
      if (is_noted) static_cast<void>(checker::store_undo_data(old.get(), noted));
    }
    const int named = replaces_ ? common::system_calls().rename(made.c_str(), index.c_str())
                                : common::system_calls().link(made.c_str(), index.c_str());
    if (named != 0) {
      const int error = errno;
      if (replaces_) common::system_calls().unlink(kept_.c_str());
      errno = error;
      return refuse_errno(index);
    }
    const common::FileHold folder{
        common::open_file(checker::folder_of(name_).c_str(), O_RDONLY | O_DIRECTORY)};
    if (folder) static_cast<void>(common::system_calls().fsync(folder.get()));
    return Status::kSound;
  }

  // Of a data file of that name only a link, or the empty one of a run that was killed, is removed.
  void remove_made() {
    const checker::SignalBlock block;
    struct stat status {};
    const std::string data = mkdatname(made_);
    const bool is_ours =
        ::lstat(data.c_str(), &status) == 0 &&
        (S_ISLNK(status.st_mode) || (S_ISREG(status.st_mode) && status.st_size == 0));
    if (is_ours) common::system_calls().unlink(data.c_str());
    if (is_ours || !common::name_exists(data)) {
      common::system_calls().unlink(mkidxname(made_).c_str());
    }
    checker::forget_file(mkidxname(made_));
    checker::forget_file(data);
  }

  const ReindexOptions& options_;
  std::string name_;
  std::string made_;  // its name for now
  std::int64_t data_size_ = 0;
  bool replaces_ = false;
  PairShape shape_;
  int isfd_ = -1;
  std::int64_t records_ = 0;
  std::string why_;
  std::string kept_;
};

Outcome reindex(const ReindexOptions& options, const std::string& name, Report& report) {
  const checker::Interrupt interrupt("\ninterrupted; nothing was changed\n");
  Reindexing work{options, name};
  const Status status = work.run();
  if (status != Status::kSound) {
    report.pair_ends(status, "no index was made: " + work.why(), {});
    return {.status = status};
  }
  const auto indexes = static_cast<std::int64_t>(work.indexes());
  Fields fields{{"records", work.records()}, {"indexes", indexes}};
  std::string text = "made; it checks clean";
  if (!work.kept().empty()) {
    text += fmt::format("; the index of before is {}", shown(work.kept()));
    fields.emplace_back("kept", FileBytes{.bytes = work.kept()});
  }
  report.pair_ends(Status::kSound, text, fields);
  return {.status = Status::kSound};
}

int run_reindex(const ReindexOptions& options) {
  const int sources = (options.keys.empty() ? 0 : 1) + (options.keys_file.empty() ? 0 : 1) +
                      (options.like.empty() ? 0 : 1);
  if (sources != 1) {
    std::fputs("zentra: one of --key, --keys and --like tells the indexes\n", stderr);
    return kUsage;
  }
  std::string name = options.name;
  checker::cut_suffix(name);
  return run_pairs({.command = "reindex",
                    .json = options.json,
                    .pairs = {name},
                    .good = kVerdictDone,
                    .changes = true,
                    .work = [&](const std::string& base, Report& report) {
                      return reindex(options, base, report);
                    }});
}

}  // namespace

std::function<int()> prepare_reindex(Arguments& arguments) {
  const auto options = std::make_shared<ReindexOptions>();
  arguments.texts("--key", options->keys, "WORDS", "an index, as 8,20,char,dups; zentra-keys(5)");
  arguments.text("--keys", options->keys_file, "FILE", "a file of such lines");
  arguments.text("--like", options->like, "PAIR", "the indexes and the record length of this pair");
  arguments.number("--length", options->length, 1, isam::kMaxRecordLength, "BYTES", "of a record");
  arguments.flag("--force", options->force,
                 "make it although there is one, which is kept as the index of before");
  arguments.json(options->json);
  arguments.wait(options->wait);
  arguments.pair(options->name);
  return [options] { return run_reindex(*options); };
}

}  // namespace zentra
