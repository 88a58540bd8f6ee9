#include "txlog/replay.h"

#include <algorithm>

#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/files/files.h"

namespace isam::txlog {
namespace {

// Numbers that a damaged record may skip at most, beyond those that the log can have inserted.
constexpr std::int64_t kSpareNumbers = 1 << 20;
constexpr std::int64_t kSmallestImage = 34;  // bytes that an image takes in the log at least

// What is said of a record that is not applied.
struct Texts {
  LogType type;
  About about;
  const char* skipped;
  const char* failed;
};
constexpr Texts kTexts[] = {
    {LogType::kDelete, About::kRecord, "delete record skipped", "delete record redo problem"},
    {LogType::kInsert, About::kRecord, "insert record skipped", "insert record redo problem"},
    {LogType::kUpdate, About::kRecord, "update record skipped", "update record redo problem"},
    {LogType::kOpened, About::kOpening, nullptr, "file open redo problem"},
    {LogType::kClosed, About::kClosing, "close file skipped", "file close redo problem"},
    {LogType::kBuilt, About::kFile, nullptr, "build redo problem"},
    {LogType::kErased, About::kFile, nullptr, "erase redo problem"},
    {LogType::kIndexAdded, About::kFile, "create index skipped", "create index redo problem"},
    {LogType::kIndexDropped, About::kFile, "drop index skipped", "drop index redo problem"},
    {LogType::kRenamed, About::kFile, nullptr, "rename redo problem"},
    {LogType::kUniqueSet, About::kFile, "set unique id skipped", "set unique redo problem"},
    {LogType::kUniqueTaken, About::kFile, "unique id skipped",
     "unique id (iscurruniq) redo problem"},
    {LogType::kClustered, About::kFile, "create cluster index skipped",
     "cluster index redo problem"},
};

constexpr const char* kNoSetUniqueOpen = "set unique (getrisfd) redo problem";
constexpr const char* kNoUniqueOpen = "unique id (getrisfd) redo problem";

const Texts* texts_of(LogType type) {
  const auto* const found = std::ranges::find(kTexts, type, &Texts::type);
  return found == std::end(kTexts) ? nullptr : found;
}

// Whether a change of a file cannot be made, or not with the same result, before what was done to
// its records.
bool needs_all_records(const LogRecord& record) {
  switch (record.type()) {
    case LogType::kClustered:
    case LogType::kErased:
    case LogType::kRenamed:
      return true;
    case LogType::kIndexAdded: {
      const auto change = record.index_change();
      return change && (change->key.flags & KF_DUPS) == 0;
    }
    default:
      return false;
  }
}

}  // namespace

bool is_applied(LogType type) { return texts_of(type) != nullptr; }

About about_of(LogType type) {
  const Texts* const texts = texts_of(type);
  return texts == nullptr ? About::kNothing : texts->about;
}

int Replay::start() {
  skippable_numbers_ = common::file_size(logstate.fd) / kSmallestImage + kSpareNumbers;
  return mode_ != 0 ? errors_.opbadlog() : 0;
}

int Replay::redo(const Step& step) {
  const Texts* const texts = texts_of(step.record.type());
  if (texts == nullptr) return 0;  // a begin mark
  if (!passed_over_.empty() && passed_over_.erase(step.offset) != 0) return 0;
  if (chkskip(step.record, texts->skipped)) return 0;
  if (put_before(step) != 0) return -1;
  const int result = redo_now(step, texts->failed);
  return result == 0 && !put_off_.empty() ? redo_put_off() : result;
}

int Replay::redo_now(const Step& step, const char* message) {
  clear_errors();
  const int result = apply(step, message);
  const LogType type = step.record.type();
  if ((type == LogType::kClustered || type == LogType::kErased) && step.file != nullptr) {
    step.file->renumbered = step.offset;
  }
  // The file is not what the log goes on to speak of, whether or not it could be erased.
  const bool counts = result == 0 || (mode_ & kTolerant) != 0;
  if (type == LogType::kErased && counts && step.file != nullptr) files_.forget(*step.file);
  if (result == kPutOff) return 0;
  if (result != 0) return pass_if_taken_back(step) ? 0 : note_failure(step, message);
  observer_.applied(step.record);
  return 0;
}

LogRecord Replay::load(const Held& held) {
  while (windows_.size() <= depth_) windows_.emplace_back(logstate.fd);
  const LogRecord record = windows_[depth_].isgetnext(held.offset);
  if (record && record.length() == held.length) return record;
  failed_unless_set(kLogRead);
  return {};
}

int Replay::redo_held(HeldId id) {
  held_.hide(id);
  held_[id].done = true;
  const Held held = held_[id];
  const LogRecord record = load(held);
  if (!record) return -1;
  ++depth_;
  const HeldId outer = std::exchange(in_hand_, id);
  const int result = redo({record, held.offset, held.writer, held.file});
  in_hand_ = outer;
  --depth_;
  return result;
}

int Replay::redo_all(const std::vector<HeldId>& ids) {
  for (const HeldId id : ids) {
    if (!held_[id].done && redo_held(id) != 0) return -1;
  }
  return 0;
}

int Replay::redo_put_off(RecordKey except) {
  while (depth_ < put_off_at_.size() && put_off_at_[depth_] != 0) {
    const auto due = std::ranges::find_if(put_off_, [&](const auto& one) {
      return one.second.depth == depth_ && one.first != except;
    });
    if (due == put_off_.end()) break;
    const RecordKey about = due->first;
    // A later change of the record may do instead of this one; else its key should be free by now.
    if (change_again(about, held_[due->second.id]) != 0) return -1;
    const auto still = put_off_.find(about);
    if (still == put_off_.end()) continue;
    const HeldId id = still->second.id;
    as_found_ = still->second.stands_for_more ? id : kNoHeld;
    end_put_off(about);
    may_put_off_ = false;
    const int result = redo_held(id);
    may_put_off_ = true;
    as_found_ = kNoHeld;
    if (result != 0) return -1;
  }
  return 0;
}

void Replay::end_put_off(RecordKey about) {
  const auto found = put_off_.extract(about);
  if (found) --put_off_at_[found.mapped().depth];
}

// Whoever has the key got it because the writer, or somebody else after it, went on to change the
// record once more.
int Replay::change_again(RecordKey about, const Held& put_off) {
  const Touch touch{nullptr, INT64_MAX, put_off.file, About::kRecord, false};
  const Writer* const writer = put_off.writer;
  const std::int64_t offset = put_off.offset;
  for (const HeldId id : held_.about_record(touch, about.second)) {
    if (!put_off_.contains(about)) break;
    const bool may_go_on = held_[id].writer == writer || held_[id].offset > offset;
    const bool goes_on = may_go_on && !outlook_.was_taken_back(held_[id].offset);
    if (goes_on && !held_[id].done && redo_held(id) != 0) return -1;
  }
  return 0;
}

// Applies what others hold that stood in the files when this record was written.
int Replay::put_before(const Step& step) {
  const auto other = others_.extract(step.offset);
  if (held_.none_findable() || depth_ > kDeepest) return 0;
  Touch touch{step.writer, step.offset, step.file, about_of(step.record.type()),
              needs_all_records(step.record)};
  std::vector<HeldId> found = held_.about_file(touch);
  if (touch.about == About::kRecord) add_standing(step, touch, found);
  held_.complete(found, outlook_);
  if (redo_all(found) != 0) return -1;
  if (other) {
    touch.file = other.mapped();
    found = held_.about_file(touch);
    held_.complete(found, outlook_);
    if (redo_all(found) != 0) return -1;
  }
  return held_.is_exhausted() ? failed(kBadLogRecord) : 0;
}

void Replay::note(const LogRecord& record, std::string_view message) {
  observer_.left_out(record, message);
  if (mode_ != 0) errors_.dobadlog(record, message);
}

int Replay::note_failure(const Step& step, const char* message) {
  failed_unless_set(kBadLogRecord);
  if ((mode_ & kTolerant) == 0) {
    observer_.left_out(step.record, message);
    return -1;
  }
  note(step.record, message);
  if (step.record.type() == LogType::kOpened) {
    if (const auto file = step.record.file_named()) {
      skipped_[{step.record.process(), file->open}] = file->name;
    }
  }
  return 0;
}

// Whether an image that cannot be applied was taken back by its writer; neither is applied then.
bool Replay::pass_if_taken_back(const Step& step) {
  if (!is_image(step.record.type())) return false;
  const std::int64_t opposite = outlook_.opposite_of(step.offset);
  if (opposite < 0) return false;
  passed_over_.insert(opposite);
  clear_errors();
  return true;
}

bool Replay::has_skipped(std::int32_t process) const {
  const auto found = skipped_.lower_bound({process, 0});
  return found != skipped_.end() && found->first.first == process;
}

// Whether the record is about an open that could not be opened here.
bool Replay::chkskip(const LogRecord& record, const char* message) {
  if (skipped_.empty() || message == nullptr) return false;
  const auto open = record.open_number();
  if (!open) return false;
  const auto found = skipped_.find({record.process(), *open});
  if (found == skipped_.end()) return false;
  note(record, std::string{message} + " (filename = " + found->second + ")");
  if (record.type() == LogType::kClosed) skipped_.erase(found);
  return true;
}

void Replay::close_opens(Writer& writer) {
  for (const auto& [number, file] : writer.opened) files_.lgclfile(*file);
  writer.opened.clear();
  writer.named.clear();
  const auto first = skipped_.lower_bound({writer.process, 0});
  auto last = first;
  while (last != skipped_.end() && last->first.first == writer.process) ++last;
  skipped_.erase(first, last);
  clear_errors();
}

// ---- Files.

int Replay::apply(const Step& step, const char*& message) {
  switch (step.record.type()) {
    case LogType::kOpened:
      return apply_open(step);
    case LogType::kClosed:
      return apply_close(step);
    case LogType::kBuilt:
    case LogType::kErased:
    case LogType::kRenamed:
      return apply_file(step);
    case LogType::kIndexAdded:
    case LogType::kIndexDropped:
    case LogType::kClustered:
      return apply_index(step);
    case LogType::kUniqueSet:
    case LogType::kUniqueTaken:
      return apply_unique(step, message);
    default:
      return apply_image(step);
  }
}

// The open that stands for a writer's: -1 with 101 when none does.
int Replay::isfd_of(const Step& step) {
  return step.file == nullptr ? failed(kNotOpen) : files_.getrisfd(*step.file);
}

int Replay::apply_open(const Step& step) {
  const auto named = step.record.file_named();
  if (!named || step.file == nullptr) return failed(kBadLogRecord);
  std::map<int, ReplayFile*>& opened = step.writer->opened;
  const auto found = opened.find(named->open);
  if (found != opened.end()) {
    if (found->second == step.file && !step.file->gone) return 0;
    ReplayFile* const other = found->second;
    opened.erase(found);
    files_.lgclfile(*other);
    clear_errors();
  }
  if (files_.addopfile(*step.file, named->name, named->varlen) != 0) {
    return failed_unless_set(kBadLogRecord);
  }
  opened[named->open] = step.file;
  skipped_.erase({step.record.process(), named->open});
  return 0;
}

// Nothing is to be done when the open's number stands for no file by now, or for another one: a
// held opening may have been applied before its turn.
int Replay::apply_close(const Step& step) {
  const auto named = step.record.file_named();
  if (!named || step.file == nullptr) return failed(kBadLogRecord);
  const auto found = step.writer->opened.find(named->open);
  if (found == step.writer->opened.end() || found->second != step.file) return 0;
  step.writer->opened.erase(found);
  return files_.lgclfile(*step.file);
}

int Replay::apply_file(const Step& step) {
  if (step.record.type() == LogType::kErased) {
    const auto name = step.record.erased();
    return name ? iserase(std::string{*name}.c_str()) : failed(kBadLogRecord);
  }
  if (step.record.type() == LogType::kRenamed) {
    const auto names = step.record.renamed();
    if (!names || step.file == nullptr) return failed(kBadLogRecord);
    const std::string to{names->to};
    if (isrename(std::string{names->from}.c_str(), to.c_str()) != 0) return -1;
    step.file->name = to;
    return 0;
  }
  auto built = step.record.built();
  if (!built) return failed(kBadLogRecord);
  isreclen = built->minimum;
  const int isfd =
      isbuild(std::string{built->name}.c_str(), built->reclen, &built->key, built->mode);
  return isfd < 0 ? -1 : isclose(isfd);
}

int Replay::apply_index(const Step& step) {
  auto change = step.record.index_change();
  if (!change) return failed(kBadLogRecord);
  const int isfd = isfd_of(step);
  if (isfd < 0) return -1;
  if (step.record.type() == LogType::kIndexAdded) return isaddindex(isfd, &change->key);
  if (step.record.type() == LogType::kIndexDropped) return isdelindex(isfd, &change->key);
  const int clustered = iscluster(isfd, &change->key);
  // When the new pair could not be opened, the old open is lost.
  if (clustered >= 0 || open_of(isfd) == nullptr) files_.txoupdate(*step.file, clustered);
  return clustered < 0 ? -1 : 0;
}

int Replay::apply_unique(const Step& step, const char*& message) {
  const auto unique = step.record.unique_id();
  if (!unique) return failed(kBadLogRecord);
  const bool sets = step.record.type() == LogType::kUniqueSet;
  const int isfd = isfd_of(step);
  if (isfd < 0) {
    message = sets ? kNoSetUniqueOpen : kNoUniqueOpen;
    return -1;
  }
  if (!unique->id) return 0;
  if (sets) return issetunique(isfd, *unique->id);
  std::int32_t current = 0;
  if (iscurruniq(isfd, &current) != 0) return -1;
  if (current > *unique->id || *unique->id == INT32_MAX) return 0;
  return issetunique(isfd, *unique->id + 1);
}

}  // namespace isam::txlog
