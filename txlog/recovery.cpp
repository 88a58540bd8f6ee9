#include "txlog/recovery.h"

#include <algorithm>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "isam/base/errors.h"
#include "isam/calls/transactions.h"
#include "isam/files/files.h"
#include "isam/log/logfile.h"
#include "txlog/replay.h"

namespace isam::txlog {
namespace {

constexpr const char* kTransactionProblem = "transaction problem";

// Changes of files as a whole come without an open, so without anything before them.
bool is_about_files(LogType type) {
  return type == LogType::kBuilt || type == LogType::kErased || type == LogType::kRenamed;
}

class Recovery {
 public:
  Recovery(int mode, RecoveryObserver& observer)
      : mode_(mode), observer_(observer), replay_(mode, observer) {}

  // 0 at the end of the log, or -1.
  int run() {
    if (replay_.start() != 0) return -1;
    for (;;) {
      clear_errors();
      const LogRecord record = scan_.next();
      if (!record) return iserrno == 0 ? finish() : -1;
      if (!record.is_sound()) return stop(record);
      if (record.type() == LogType::kEnd) return finish();
      replay_.held().count_record();
      if (handle(record, scan_.offset()) != 0) return -1;
    }
  }

 private:
  using WriterHold = std::unique_ptr<Writer>;

  int stop(const LogRecord& record) {
    failed_unless_set(kBadLogRecord);
    const std::int32_t reason = iserrno;
    replay_.note(record, kTransactionProblem);
    return failed_as(reason);
  }

  Writer& writer_of(std::int32_t process) {
    WriterHold& writer = writers_[process];
    if (writer == nullptr) {
      writer = std::make_unique<Writer>();
      writer->process = process;
      writer->serial = ++serials_;
    }
    return *writer;
  }

  int handle(const LogRecord& record, std::int64_t offset) {
    const LogType type = record.type();
    const auto found = writers_.find(record.process());
    Writer* const writer = found == writers_.end() ? nullptr : found->second.get();
    const bool reopens = writer != nullptr && writer->is_reopened_by(record);
    // First, for what has been in doubt so far decides on what is applied now.
    if (writer != nullptr) go_on(*writer, record, offset, reopens);
    switch (type) {
      case LogType::kUnknown:
        return stop(record);
      case LogType::kBegin:
        return handle_begin(record, offset);
      case LogType::kOpened:
        return handle_opening(record, offset, writer, reopens);
      case LogType::kCommit:
      case LogType::kRollback:
        return writer != nullptr ? end(*writer, type) : handle_end_of_unknown(record);
      default:
        if (!is_applied(type)) return 0;  // of no meaning here
        return writer != nullptr ? handle_change(record, offset, *writer)
                                 : handle_change_of_unknown(record, offset);
    }
  }

  int handle_begin(const LogRecord& record, std::int64_t offset) {
    if (begin(record.process(), offset) != 0) return -1;
    hold(record, offset, writer_of(record.process()));
    return 0;
  }

  // An opening is held also outside a transaction: the file is opened when a change is applied.
  // When it shows that another process has got the number of a killed one, that one's opens are
  // closed.
  int handle_opening(const LogRecord& record, std::int64_t offset, const Writer* writer,
                     bool reopens) {
    if (writer != nullptr && writer->begun &&
        replay_.outlook().is_new_process({record, offset, writer->begin, reopens})) {
      replay_.close_opens(drop(record.process()));
    }
    hold(record, offset, writer_of(record.process()));
    return 0;
  }

  int handle_change(const LogRecord& record, std::int64_t offset, Writer& writer) {
    if (writer.begun) {
      hold(record, offset, writer);
      return 0;
    }
    // Files that it opened come first.
    if (rollforward(writer, LogType::kCommit) != 0) return -1;
    writer.last = offset;
    if (redo(record, offset, writer) != 0) return -1;
    if (!is_image(record.type())) retire(writer);
    return 0;
  }

  int handle_end_of_unknown(const LogRecord& record) {
    return (mode_ & kAnyWriter) != 0 ? 0 : stop(record);
  }

  int handle_change_of_unknown(const LogRecord& record, std::int64_t offset) {
    if (!is_about_files(record.type()) && (mode_ & kAnyWriter) == 0) return stop(record);
    Writer nobody;
    return redo(record, offset, nobody);
  }

  // A writer that goes on has made its last change; but one that opens a file by a number that it
  // has open is rather another process, and after any opening only what leads back to before the
  // change shows that it is the same.
  void go_on(Writer& writer, const LogRecord& record, std::int64_t offset, bool reopens) {
    const LogType type = record.type();
    if (reopens) {
      leave_doubt(writer);
      ++writer.epoch;
      return;
    }
    if (writer.doubted_file == nullptr) return;
    if (type == LogType::kOpened) {  // then, and behind a begin mark, the next record tells
      writer.opened_since = true;
      return;
    }
    if (writer.opened_since && !writer.is_of_before(record)) {
      if (is_image(type)) leave_doubt(writer);
      return;
    }
    if (type == LogType::kBegin && !writer.is_of_before(record)) return;
    end_doubt(writer, record, offset);
  }

  // The writer's last change was made, for this record is by the same process.
  void end_doubt(Writer& writer, const LogRecord& record, std::int64_t offset) {
    writer.opened_since = false;
    const std::int32_t number = writer.doubted_number;
    if (!replay_.doubts().end(writer) || !is_image(record.type())) return;
    // This record takes back what another change has shown not to be made, or done away with.
    const auto image = record.image();
    if (image && image->number == number && replay_.outlook().is_opposite(offset)) {
      replay_.pass_over(offset);
    }
  }

  // The last change stays in doubt: what follows may be another process's.
  void leave_doubt(Writer& writer) {
    writer.serial = ++serials_;
    writer.doubted_file = nullptr;
    writer.opened_since = false;
  }

  int redo(const LogRecord& record, std::int64_t offset, Writer& writer) {
    const int result = replay_.redo({record, offset, &writer, file_of(record, offset, writer)});
    replay_.files().release_all();
    return result;
  }

  // The file that a record is about, as the log names it at this place.
  ReplayFile* file_of(const LogRecord& record, std::int64_t offset, Writer& writer) {
    ReplayFiles& files = replay_.files();
    switch (record.type()) {
      case LogType::kBuilt: {
        const auto built = record.built();
        if (!built) return nullptr;
        ReplayFile& before = files.named(built->name);
        replay_.also_about(offset, before);
        return &files.built(built->name);
      }
      case LogType::kErased: {
        const auto name = record.erased();
        return name ? &files.named(*name) : nullptr;
      }
      case LogType::kRenamed: {
        const auto names = record.renamed();
        if (!names) return nullptr;
        ReplayFile& file = files.named(names->from);
        replay_.also_about(offset, files.named(names->to));
        files.renamed(file, names->to);
        return &file;
      }
      case LogType::kOpened: {
        const auto named = record.file_named();
        if (!named) return nullptr;
        ReplayFile& file = files.named(named->name);
        writer.named[named->open] = {&file, writer.epoch, offset};
        return &file;
      }
      default:
        return file_of_open(record, writer);
    }
  }

  static ReplayFile* file_of_open(const LogRecord& record, Writer& writer) {
    const NamedFile* const named = writer.named_by(record);
    if (named == nullptr) return nullptr;
    ReplayFile* const file = named->file;
    if (record.type() == LogType::kClosed) writer.named.erase(*record.open_number());
    return file;
  }

  void hold(const LogRecord& record, std::int64_t offset, Writer& writer) {
    const LogType type = record.type();
    Held held;
    held.offset = offset;
    held.length = static_cast<std::uint16_t>(record.length());
    held.writer = &writer;
    held.file = file_of(record, offset, writer);
    held.about = about_of(type);
    held.linked = is_image(type) && record.is_linked();
    if (const auto image = record.image()) held.number = image->number;
    const HeldId id = replay_.held().add(held);
    HeldList& list = writer.held;
    (list.last == kNoHeld ? list.first : replay_.held()[list.last].next) = id;
    list.last = id;
    writer.last = offset;
  }

  // ---- Transactions.

  // A writer that begins anew while it is in a transaction was killed, and another process has got
  // its number; or it is the same process after all, so the files that it opened stay open.
  int begin(std::int32_t process, std::int64_t offset) {
    Writer& writer = writer_of(process);
    if (writer.begun) {
      Writer& killed = drop(process);
      Writer& now = writer_of(process);
      now.named.swap(killed.named);
      now.opened.swap(killed.opened);
      HeldRecords& held = replay_.held();
      for (HeldId id = killed.held.first; id != kNoHeld; id = held[id].next) {
        const About about = held[id].about;
        if (held[id].done || (about != About::kOpening && about != About::kClosing)) continue;
        held[id].writer = &now;
        if (replay_.redo_held(id) != 0) return -1;
      }
      clear_errors();
      forget_if_nothing_counts(killed);
    }
    Writer& now = writer_of(process);
    now.begun = true;
    now.begin = offset;
    return 0;
  }

  // The writer was killed. What it did is not applied, as far as nobody's records show that it
  // stands in the files.
  Writer& drop(std::int32_t process) {
    const auto found = writers_.find(process);
    dropped_.push_back(std::move(found->second));
    writers_.erase(found);
    return *dropped_.back();
  }

  // Forgets the writer dropped last, unless a search may still find what it held.
  void forget_if_nothing_counts(Writer& killed) {
    HeldRecords& held = replay_.held();
    for (HeldId id = killed.held.first; id != kNoHeld; id = held[id].next) {
      if (held[id].findable) return;
    }
    report(killed);
    for (HeldId id = killed.held.first; id != kNoHeld;) {
      held.remove(std::exchange(id, held[id].next));
    }
    dropped_.pop_back();
  }

  // Ends a transaction.
  int end(Writer& writer, LogType how) {
    if (rollforward(writer, how) != 0) return -1;
    writer.begun = false;
    retire(writer);
    return 0;
  }

  // Forgets a writer that has no files open, not even ones that could not be opened here: more may
  // be said of those.
  void retire(Writer& writer) {
    std::erase_if(writer.opened, [](const auto& open) { return open.second->gone; });
    std::erase_if(writer.named, [](const auto& open) { return open.second.file->gone; });
    const bool done = writer.named.empty() && !replay_.has_skipped(writer.process);
    if (done) writers_.erase(writer.process);
  }

  // Applies all that the writer holds; after a rollback only what that has not undone.
  int rollforward(Writer& writer, LogType how) {
    HeldRecords& held = replay_.held();
    for (HeldId id = writer.held.first; id != kNoHeld; id = held[id].next) held.hide(id);
    writer.last = 0;  // an end: nothing of it is in doubt
    const HeldList ended = std::exchange(writer.held, {});
    for (HeldId id = ended.first; id != kNoHeld;) {
      // What a rollback undid was its own images; others stand.
      const bool undone = how == LogType::kRollback && held[id].linked;
      const bool due = !undone && !held[id].done && !held[id].passed;
      if (due && replay_.redo_held(id) != 0) return -1;
      id = held[id].next;
    }
    if (replay_.redo_put_off() != 0) return -1;
    for (HeldId id = ended.first; id != kNoHeld;) {
      held.remove(std::exchange(id, held[id].next));
    }
    replay_.files().release_all();
    return 0;
  }

  // ---- The end of the log.

  int finish() {
    for (const WriterHold& writer : dropped_) report(*writer);
    std::vector<const Writer*> begun;
    for (const auto& [process, writer] : writers_) {
      if (writer->begun) begun.push_back(writer.get());
    }
    std::ranges::sort(begun, {}, &Writer::begin);
    for (const Writer* const writer : begun) report(*writer);
    return replay_.files().close_all();
  }

  void report(const Writer& writer) {
    HeldRecords& held = replay_.held();
    std::size_t count = 0;
    for (HeldId id = writer.held.first; id != kNoHeld; id = held[id].next) count += !held[id].done;
    observer_.unfinished(writer.process, count);
    for (HeldId id = writer.held.first; id != kNoHeld; id = held[id].next) {
      const Held& one = held[id];
      const bool stands_alone = one.about >= About::kFile && !one.linked && !one.done;
      const LogRecord record = stands_alone ? replay_.load(one) : LogRecord{};
      if (record) observer_.dropped(record);
    }
    clear_errors();
  }

  int mode_;
  RecoveryObserver& observer_;
  LogScan scan_{logstate.fd};
  Replay replay_;
  std::unordered_map<std::int32_t, WriterHold> writers_;
  std::vector<WriterHold> dropped_;
  std::uint32_t serials_ = 0;
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
  isresumlog();  // a log that was put aside counts as open
  if (!log_is_open()) return failed(kNoLog);
  if (txflag == kInTransaction) return failed(kBadArgument);
  txflag = kNotLogging;
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
  if (result == 0) clear_errors();
  set_status(result == 0 ? "0000" : "9090");
  return result;
}

}  // namespace isam::txlog
