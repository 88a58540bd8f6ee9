#include "recover/replay.h"

#include <unistd.h>

#include <cerrno>
#include <map>

#include "common/io.h"
#include "isam/base/errors.h"
#include "recover/describe.h"
#include "recover/plainfile.h"
#include "recover/tally.h"
#include "recover/text.h"
#include "txlog/errorlog.h"
#include "txlog/recovery.h"

namespace recover {
namespace {

using isam::txlog::kErrorLogName;

// Memory is bounded, whatever the log holds.
// Files in the summary; a log that names more is damaged.
constexpr std::size_t kMostFiles = 10000;
// Unfinished transactions that are listed one by one, and records dropped with them.
constexpr std::size_t kMostUnfinished = 1000;

// Counts what a recovery does, and shows it if that is wanted.
class Reporter : public isam::txlog::RecoveryObserver {
 public:
  explicit Reporter(const Options& options) : options_(options) {}

  void applied(const LogRecord& record) override {
    names_.learn(record);
    applied_.add(type_of(record));
    count(record).applied.add(type_of(record));
    if (options_.verbose) show("applied   ", record);
    names_.forget(record);
    last_left_out_.clear();
  }

  void left_out(const LogRecord& record, std::string_view message) override {
    names_.learn(record);
    left_out_.add(type_of(record));
    count(record).left_out.add(type_of(record));
    // The message may hold a name from the log.
    const std::string reason =
        quoted(message) + (iserrno == 0 ? std::string{} : ", " + code_text(iserrno));
    if (options_.verbose) {
      show("left out  ", record);
      print("          " + reason + "\n");
    }
    last_left_out_ = describe(record, names_) + "; " + reason;
    names_.forget(record);
  }

  void gave_way(const LogRecord& record) override {
    ++gave_way_;
    if (options_.verbose) show("gave way  ", record);
  }

  void dropped(const LogRecord& record) override {
    if (++dropped_count_ > kMostUnfinished) return;
    dropped_ += "  " + describe(record, names_) + "\n";
  }

  void unfinished(std::int32_t process, std::size_t records) override {
    ++unfinished_count_;
    if (unfinished_count_ > kMostUnfinished) return;
    unfinished_ +=
        "  process " + std::to_string(process) + ", " + std::to_string(records) + " records\n";
  }

  void print_summary() const {
    print("applied   " + applied_.text() + "\n");
    print("left out  " + left_out_.text() + "\n");
    for (const auto& [name, counts] : files_) {
      print("file " + (name.empty() ? "not known" : quoted(name)) + "\n");
      if (counts.applied.total() != 0) print("  applied   " + counts.applied.text() + "\n");
      if (counts.left_out.total() != 0) print("  left out  " + counts.left_out.text() + "\n");
    }
    if (gave_way_ != 0) {
      print("undone, for their processes were killed before they did it: " +
            std::to_string(gave_way_) + "\n");
    }
    if (unfinished_count_ == 0) return;  // without such a transaction no record was dropped
    print("transactions without an end, not applied: " + std::to_string(unfinished_count_) + "\n" +
          unfinished_);
    if (dropped_count_ == 0) return;
    print("written inside them but not part of them, not applied either: " +
          std::to_string(dropped_count_) + "\n" + dropped_);
  }

  [[nodiscard]] bool left_something_out() const { return left_out_.total() != 0; }
  // The record that was left out last, when nothing was applied since: a recovery stops at one.
  [[nodiscard]] const std::string& last_left_out() const { return last_left_out_; }

 private:
  struct Counts {
    KindCounts applied;
    KindCounts left_out;
  };

  void show(const char* what, const LogRecord& record) const {
    print(what + describe(record, names_) + "\n");
    if (options_.dump) print(dump_of(record));
  }

  // The counts of the record's file; those of no known file when there are too many others.
  Counts& count(const LogRecord& record) {
    const std::string name{names_.name_for(record)};
    return files_.size() < kMostFiles || files_.contains(name) ? files_[name] : files_[""];
  }

  const Options& options_;
  OpenNames names_;
  KindCounts applied_;
  KindCounts left_out_;
  std::map<std::string, Counts> files_;
  std::string unfinished_;
  std::size_t unfinished_count_ = 0;
  std::string dropped_;
  std::size_t dropped_count_ = 0;
  std::size_t gave_way_ = 0;
  std::string last_left_out_;
};

std::string folder_text(const Options& options) {
  return options.folder.empty() ? "here" : "in " + quoted(options.folder);
}

// Opens the log for the library and goes to the folder of the files: false after a complaint.
bool prepare(const Options& options) {
  if (islogopen(options.file.c_str()) != 0) {
    const int reason = iserrno == ISELOGOPEN ? errno : 0;
    complain("cannot open log " + quoted(options.file) + ": " + code_text(iserrno) +
             (reason == 0 ? std::string{} : ", " + code_text(reason)));
    return false;
  }
  if (!options.folder.empty() && ::chdir(options.folder.c_str()) != 0) {
    complain_errno("cannot work in", options.folder);
    islogclose();
    return false;
  }
  if ((options.keep_going || options.any_writer) && common::name_exists(kErrorLogName)) {
    complain(std::string{kErrorLogName} + " of an earlier recovery is " + folder_text(options) +
             ": see it with -n, then move it away");
    islogclose();
    return false;
  }
  return true;
}

Status run(const Options& options) {
  using enum isam::txlog::RecoveryMode;
  const int mode = (options.any_writer ? kAnyWriter : 0) | (options.keep_going ? kTolerant : 0);
  Reporter reporter{options};
  const int result = isam::txlog::recover(mode, reporter);
  const std::int32_t reason = iserrno;
  reporter.print_summary();
  if (mode != 0 && common::name_exists(kErrorLogName)) {
    print(
        std::string{kErrorLogName} + " is " + folder_text(options) +
        (reporter.left_something_out() ? ": it holds what was left out\n" : ", without records\n"));
  }
  if (result == 0) return reporter.left_something_out() ? Status::kSome : Status::kAll;
  complain("recovery stopped: " + code_text(reason));
  if (!reporter.last_left_out().empty()) complain("at " + reporter.last_left_out());
  complain("restore the files from the copy again before the next try");
  return Status::kFailed;
}

}  // namespace

Status replay_log(const Options& options) {
  // An empty file would become a log, and a pipe would hold the program up.
  const PlainFile log = open_plain(options.file);
  if (!log.fd) return Status::kFailed;
  if (log.size == 0) {
    print("The log is empty: there is nothing to apply.\n");
    return Status::kAll;
  }
  return prepare(options) ? run(options) : Status::kFailed;
}

}  // namespace recover
