#include "txlog/recovery.h"

#include <map>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/io.h"
#include "isam/errors.h"
#include "isam/files.h"
#include "isam/traced.h"
#include "txlog/apply.h"
#include "txlog/errorlog.h"
#include "txlog/logfile.h"
#include "txlog/replayfiles.h"
#include "txlog/transactions.h"

namespace isam::txlog {
namespace {

// Numbers that a damaged record may skip at most, beyond those that the log can have inserted.
constexpr std::int64_t kSpareNumbers = 1 << 20;
constexpr std::int64_t kSmallestImage = 34;

// What is said of a record that is not applied.
struct Texts {
  LogType type;
  const char* skipped;
  const char* failed;
};
constexpr Texts kTexts[] = {
    {LogType::kDelete, "delete record skipped", "delete record redo problem"},
    {LogType::kInsert, "insert record skipped", "insert record redo problem"},
    {LogType::kUpdate, "update record skipped", "update record redo problem"},
    {LogType::kOpened, nullptr, "file open redo problem"},
    {LogType::kClosed, "close file skipped", "file close redo problem"},
    {LogType::kBuilt, nullptr, "build redo problem"},
    {LogType::kErased, nullptr, "erase redo problem"},
    {LogType::kIndexAdded, "create index skipped", "create index redo problem"},
    {LogType::kIndexDropped, "drop index skipped", "drop index redo problem"},
    {LogType::kRenamed, nullptr, "rename redo problem"},
    {LogType::kUniqueSet, "set unique id skipped", "set unique redo problem"},
    {LogType::kUniqueTaken, "unique id skipped", "unique id (iscurruniq) redo problem"},
    {LogType::kClustered, "create cluster index skipped", "cluster index redo problem"},
};

constexpr const char* kNoSetUniqueOpen = "set unique (getrisfd) redo problem";
constexpr const char* kNoUniqueOpen = "unique id (getrisfd) redo problem";
constexpr const char* kTransactionProblem = "transaction problem";

const Texts* texts_of(LogType type) {
  for (const Texts& texts : kTexts) {
    if (texts.type == type) return &texts;
  }
  return nullptr;
}

bool is_image(LogType type) {
  return type == LogType::kDelete || type == LogType::kInsert || type == LogType::kUpdate;
}

// Changes of files as a whole come without an open, so without anything before them.
bool is_about_files(LogType type) {
  return type == LogType::kBuilt || type == LogType::kErased || type == LogType::kRenamed;
}

struct Held {
  std::int64_t offset;
  std::int32_t length;
};

// An insertion outside transactions that is the last a writer has logged. The writer may have been
// killed before it was made.
struct Doubtful {
  ReplayFileRef file;
  std::int32_t number = 0;
};

// One process that wrote the log.
struct Writer {
  bool begun = false;
  std::vector<Held> held;
  std::map<int, ReplayFileRef> opens;  // by the writer's number
  Doubtful last;
};

class Recovery {
 public:
  Recovery(int mode, RecoveryObserver& observer) : mode_(mode), observer_(observer) {}

  // 0 at the end of the log, or -1.
  int run() {
    if (mode_ != 0 && errors_.opbadlog() != 0) return -1;
    std::int64_t offset = kMagicSize;
    for (;;) {
      clear_errors();
      const LogRecord record = scan_.isgetnext(offset);
      if (record.bytes().empty()) return iserrno == 0 ? finish() : -1;
      if (record.length() < record::kSmallest || !record.is_sound()) return stop(record);
      if (record.type() == LogType::kEnd) return finish();
      if (handle(record, offset) != 0) return -1;
      offset += record.length();
    }
  }

 private:
  int finish() {
    for (const auto& [process, writer] : writers_) {
      if (writer.begun) observer_.unfinished(process, writer.held.size());
    }
    return files_.close_all();
  }

  int stop(const LogRecord& record) {
    failed_unless_set(kBadLogRecord);
    const std::int32_t reason = iserrno;
    observer_.left_out(record, kTransactionProblem);
    if (mode_ != 0) errors_.dobadlog(record, kTransactionProblem);
    return failed_as(reason);
  }

  int handle(const LogRecord& record, std::int64_t offset) {
    const LogType type = record.type();
    const auto found = writers_.find(record.process());
    Writer* writer = found == writers_.end() ? nullptr : &found->second;
    const Held held{offset, record.length()};
    if (writer != nullptr) writer->last = {};
    switch (type) {
      case LogType::kUnknown:
        return stop(record);
      case LogType::kBegin:
      case LogType::kOpened:
        if (writer == nullptr) writer = &writers_[record.process()];
        if (type == LogType::kBegin) begin(record.process(), *writer);
        writer->held.push_back(held);
        return 0;
      case LogType::kCommit:
      case LogType::kRollback:
        if (writer != nullptr) return end(record.process(), *writer, type);
        return (mode_ & kAnyWriter) != 0 ? 0 : stop(record);
      default:
        if (texts_of(type) == nullptr) return 0;  // of no meaning here
        break;
    }
    if (writer == nullptr) {
      if (!is_about_files(type) && (mode_ & kAnyWriter) == 0) return stop(record);
      Writer nobody;
      nobody.held.push_back(held);
      return rollforward(nobody, LogType::kCommit);
    }
    writer->held.push_back(held);
    return writer->begun ? 0 : end(record.process(), *writer, LogType::kCommit);
  }

  // A writer that begins anew while it is in a transaction was killed, and another process has got
  // its number. Of what it did only the files that it opened matter: they may be the same process's
  // after all.
  void begin(std::int32_t process, Writer& writer) {
    if (writer.begun) {
      observer_.unfinished(process, writer.held.size());
      drop_unfinished(writer);
    }
    writer.begun = true;
  }

  void drop_unfinished(Writer& writer) {
    for (const Held& held : std::exchange(writer.held, {})) {
      const LogRecord record = body_.isgetnext(held.offset);
      const LogType type = record.bytes().empty() ? LogType::kUnknown : record.type();
      if (type == LogType::kOpened || type == LogType::kClosed) redo(record, writer);
    }
    clear_errors();
  }

  // Applies what a writer has done, and forgets the writer when it has no files open, not even ones
  // that could not be opened here: more may be said of those.
  int end(std::int32_t process, Writer& writer, LogType how) {
    if (rollforward(writer, how) != 0) return -1;
    writer.begun = false;
    std::erase_if(writer.opens, [](const auto& open) { return open.second->gone; });
    if (writer.opens.empty() && !has_skipped(process)) writers_.erase(process);
    return 0;
  }

  [[nodiscard]] bool has_skipped(std::int32_t process) const {
    const auto found = skipped_.lower_bound({process, 0});
    return found != skipped_.end() && found->first.first == process;
  }

  int rollforward(Writer& writer, LogType how) {
    for (const Held& held : writer.held) {
      const LogRecord record = body_.isgetnext(held.offset);
      if (record.bytes().empty() || record.length() != held.length) {
        return failed_unless_set(kLogRead);
      }
      // What a rollback undid was its own images; others stand.
      const bool undone =
          how == LogType::kRollback && is_image(record.type()) && record.is_linked();
      if (!undone && redo(record, writer) != 0) return -1;
    }
    writer.held.clear();
    files_.release_all();
    return 0;
  }

  int redo(const LogRecord& record, Writer& writer) {
    const Texts* const texts = texts_of(record.type());
    if (texts == nullptr) return 0;  // a begin mark
    if (chkskip(record, texts->skipped)) return 0;
    clear_errors();
    message_ = texts->failed;
    const int result = apply(record, writer);
    // The file is not what the log goes on to speak of, whether or not it could be erased.
    if (record.type() == LogType::kErased && (result == 0 || (mode_ & kTolerant) != 0)) {
      if (const auto name = record.erased()) files_.forget(*name);
    }
    if (result != 0) return note_failure(record);
    observer_.applied(record);
    return 0;
  }

  int note_failure(const LogRecord& record) {
    failed_unless_set(kBadLogRecord);
    observer_.left_out(record, message_);
    if ((mode_ & kTolerant) == 0) return -1;
    errors_.dobadlog(record, message_);
    if (record.type() == LogType::kOpened) {
      if (const auto file = record.file_named()) {
        skipped_[{record.process(), file->open}] = file->name;
      }
    }
    return 0;
  }

  // Whether the record is about an open that could not be opened here.
  bool chkskip(const LogRecord& record, const char* message) {
    const auto open = record.open_number();
    if ((mode_ & kTolerant) == 0 || message == nullptr || !open) return false;
    const auto found = skipped_.find({record.process(), *open});
    if (found == skipped_.end()) return false;
    const std::string text = std::string{message} + " (filename = " + found->second + ")";
    observer_.left_out(record, text);
    errors_.dobadlog(record, text);
    if (record.type() == LogType::kClosed) skipped_.erase(found);
    return true;
  }

  int apply(const LogRecord& record, Writer& writer) {
    switch (record.type()) {
      case LogType::kOpened:
        return apply_open(record, writer);
      case LogType::kClosed:
        return apply_close(record, writer);
      case LogType::kBuilt:
        return apply_build(record);
      case LogType::kErased: {
        const auto name = record.erased();
        return name ? iserase(std::string{*name}.c_str()) : failed(kBadLogRecord);
      }
      case LogType::kRenamed:
        return apply_rename(record);
      case LogType::kIndexAdded:
      case LogType::kIndexDropped:
      case LogType::kClustered:
        return apply_index(record, writer);
      case LogType::kUniqueSet:
      case LogType::kUniqueTaken:
        return apply_unique(record, writer);
      default:
        return apply_image(record, writer);
    }
  }

  // The open that stands for a writer's: -1 with 101 when none does.
  int getrisfd(Writer& writer, int number) {
    const auto found = writer.opens.find(number);
    return found == writer.opens.end() ? failed(kNotOpen) : files_.getrisfd(found->second);
  }

  int apply_image(const LogRecord& record, Writer& writer) {
    const auto image = record.image();
    if (!image) return failed(kBadLogRecord);
    const int isfd = getrisfd(writer, image->open);
    if (isfd < 0) return -1;
    switch (record.type()) {
      case LogType::kDelete:
        return lgdelete(isfd, image->number);
      case LogType::kInsert:
        return apply_insert(isfd, *image, writer);
      default:
        return lgupdate(isfd, image->number, image->new_image);
    }
  }

  int apply_insert(int isfd, const Image& image, Writer& writer) {
    const ReplayFileRef& file = writer.opens[image.open];
    int result = lginsert(isfd, image.number, image.new_image, How::kRedo);
    if (result != 0 && iserrno == kBadRecordNumber && revoke(*file, image.number) &&
        lgdelete(isfd, image.number) == 0) {
      result = lginsert(isfd, image.number, image.new_image, How::kRedo);
    }
    if (result == 0 && !writer.begun) writer.last = {file, image.number};
    return result;
  }

  // Whether a number was taken by an insertion that was not made after all: its writer was killed
  // when it had logged it, and another process was given the same number.
  bool revoke(const ReplayFile& file, std::int32_t number) {
    for (auto& [process, writer] : writers_) {
      if (writer.last.file.get() != &file || writer.last.number != number) continue;
      writer.last = {};
      return true;
    }
    return false;
  }

  int apply_open(const LogRecord& record, Writer& writer) {
    const auto file = record.file_named();
    if (!file) return failed(kBadLogRecord);
    const auto found = writer.opens.find(file->open);
    if (found != writer.opens.end()) {
      if (!found->second->gone && found->second->name == file->name) return 0;
      const ReplayFileRef other = found->second;
      writer.opens.erase(found);
      files_.lgclfile(other);
      clear_errors();
    }
    const ReplayFileRef opened = files_.addopfile(file->name, file->varlen);
    if (!opened) return failed_unless_set(kBadLogRecord);
    writer.opens[file->open] = opened;
    skipped_.erase({record.process(), file->open});
    return 0;
  }

  int apply_close(const LogRecord& record, Writer& writer) {
    const auto file = record.file_named();
    const auto found = file ? writer.opens.find(file->open) : writer.opens.end();
    if (found == writer.opens.end()) return failed(kBadLogRecord);
    const ReplayFileRef closed = found->second;
    writer.opens.erase(found);
    return files_.lgclfile(closed);
  }

  static int apply_build(const LogRecord& record) {
    auto built = record.built();
    if (!built) return failed(kBadLogRecord);
    isreclen = built->minimum;
    const int isfd =
        isbuild(std::string{built->name}.c_str(), built->reclen, &built->key, built->mode);
    return isfd < 0 ? -1 : isclose(isfd);
  }

  int apply_rename(const LogRecord& record) {
    const auto names = record.renamed();
    if (!names) return failed(kBadLogRecord);
    const std::string from{names->from};
    const std::string to{names->to};
    if (isrename(from.c_str(), to.c_str()) != 0) return -1;
    files_.rename(from, to);
    return 0;
  }

  int apply_index(const LogRecord& record, Writer& writer) {
    auto change = record.index_change();
    if (!change) return failed(kBadLogRecord);
    const int isfd = getrisfd(writer, change->open);
    if (isfd < 0) return -1;
    if (record.type() == LogType::kIndexAdded) return isaddindex(isfd, &change->key);
    if (record.type() == LogType::kIndexDropped) return isdelindex(isfd, &change->key);
    const int clustered = iscluster(isfd, &change->key);
    ReplayFile& file = *writer.opens[change->open];
    if (clustered >= 0) {
      ReplayFiles::txoupdate(file, clustered);
    } else if (open_of(isfd) == nullptr) {
      file.isfd = -1;  // the failure came when the new pair was to be opened
    }
    return clustered < 0 ? -1 : 0;
  }

  int apply_unique(const LogRecord& record, Writer& writer) {
    const auto unique = record.unique_id();
    if (!unique) return failed(kBadLogRecord);
    const bool sets = record.type() == LogType::kUniqueSet;
    const int isfd = getrisfd(writer, unique->open);
    if (isfd < 0) {
      message_ = sets ? kNoSetUniqueOpen : kNoUniqueOpen;
      return -1;
    }
    if (!unique->id) return 0;
    if (sets) return issetunique(isfd, *unique->id);
    std::int32_t current = 0;
    if (iscurruniq(isfd, &current) != 0) return -1;
    if (current > *unique->id || *unique->id == INT32_MAX) return 0;
    return issetunique(isfd, *unique->id + 1);
  }

  int mode_;
  RecoveryObserver& observer_;
  LogWindow scan_{logstate.fd};
  LogWindow body_{logstate.fd};  // for what was held
  ErrorLog errors_;
  ReplayFiles files_;
  std::unordered_map<std::int32_t, Writer> writers_;
  std::map<std::pair<std::int32_t, int>, std::string> skipped_;  // writers' opens, and their files
  const char* message_ = nullptr;  // what is said if the record in hand fails
};

int run(int mode, RecoveryObserver& observer) {
  int result = 0;
  logstate.in_recovery = true;
  try {
    result = Recovery{mode, observer}.run();
  } catch (const std::bad_alloc&) {
    result = failed(kNoMemory);
  }
  logstate.in_recovery = false;
  return result;
}

int recover_all(int mode, RecoveryObserver& observer) {
  isresumlog();
  if (!log_is_open()) return failed(kNoLog);
  if (txflag == kInTransaction) return failed(kBadArgument);
  txflag = kNotLogging;
  skippable_numbers = common::file_size(logstate.fd) / kSmallestImage + kSpareNumbers;
  const int result = run(mode, observer);
  const std::int32_t reason = iserrno;
  leave_log();
  iscleanup();
  return result == 0 ? 0 : failed_as(reason);
}

}  // namespace

int recover(int mode, RecoveryObserver& observer) {
  clear_errors();
  const int result = recover_all(mode, observer);
  if (result == 0) {
    clear_errors();
    set_status("0000");
  } else {
    set_status("9090");
  }
  return result;
}

}  // namespace isam::txlog

static int recover_call(int mode) {
  isam::txlog::RecoveryObserver silent;
  return isam::txlog::recover(mode, silent);
}

extern "C" int isrecvr(int mode) {
  return isam::traced("isrecvr", mode, [=] { return recover_call(mode); });
}

extern "C" int isrecover(void) { return isrecvr(0); }
