// replay: applying one record of a log after another to the files.
//
// The records of a transaction are held until it ends. Yet each record that is applied also tells
// of those before it, for the process that wrote it could make its change then. What is met here,
// and what it shows:
//
//   others hold changes of the same data record
//       Their processes were killed, or their locks would have been in the way. Their changes stood
//       in the files: they are applied first.
//   the key or record number of the image is taken
//       Its owner gave it up in a transaction that is held: that change is applied first. Or the
//       owner has it only by the last record of a process that was killed before it made the
//       change: that change is undone.
//   the file does not have the old image, and the data record's last change had the same old image
//       That change was logged and not made: the image is applied in its place.
//
// An image that cannot be applied, and that its writer took back by a later record, is passed over
// together with that record.
//
// Keeps   P1 what a record can set off is bounded, in depth and in steps
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "isam/calls/apply.h"
#include "isam/log/logfile.h"
#include "txlog/doubts.h"
#include "txlog/errorlog.h"
#include "txlog/heldrecords.h"
#include "txlog/outlook.h"
#include "txlog/recovery.h"
#include "txlog/replayfiles.h"
#include "txlog/writer.h"

namespace isam::txlog {

// A record to be applied.
struct Step {
  LogRecord record;
  std::int64_t offset = 0;
  Writer* writer = nullptr;
  ReplayFile* file = nullptr;  // that the record is about; null: none that is known
};

// Whether a record of this type is applied at all.
[[nodiscard]] bool is_applied(LogType type);
[[nodiscard]] About about_of(LogType type);

// A file's id, and the number of a record.
using RecordKey = std::pair<std::uint32_t, std::int32_t>;

class Replay {
 public:
  Replay(int mode, RecoveryObserver& observer) : mode_(mode), observer_(observer) {}

  // These four give 0, or -1 with iserrno when the recovery must stop.
  int start();
  int redo(const Step& step);
  // Applies a held record, which no search finds from now on.
  int redo_held(HeldId id);
  // To be called when held records that belong together have been applied: applies the images that
  // were put off among them, but none of `except`.
  int redo_put_off(RecordKey except = {});
  // Tells that a record is left out, and why.
  void note(const LogRecord& record, std::string_view message);

  // The record that is held; none, with iserrno, when it cannot be read. It stays at hand until
  // the next one is asked for or applied.
  [[nodiscard]] LogRecord load(const Held& held);
  // The record at this offset builds or renames a file. It is also about `file`, which had the new
  // name before.
  void also_about(std::int64_t offset, ReplayFile& file) { others_[offset] = &file; }
  // The record at this offset is not to be applied.
  void pass_over(std::int64_t offset) { passed_over_.insert(offset); }
  // Whether a process has opens of files that could not be opened here.
  [[nodiscard]] bool has_skipped(std::int32_t process) const;
  // The process is gone: its opens are closed.
  void close_opens(Writer& writer);

  HeldRecords& held() { return held_; }
  ReplayFiles& files() { return files_; }
  LogOutlook& outlook() { return outlook_; }
  Doubts& doubts() { return doubts_; }

 private:
  // To apply a held record, another may have to come first. With more than this many in hand at
  // once, none is looked for any more.
  static constexpr std::size_t kDeepest = 16;

  // The result of an image that is not to be applied now, or not at all.
  static constexpr int kPutOff = 1;

  // What came of making way for an image: see make_way().
  enum class Way { kNone, kMade, kUnneeded, kFailed };

  // ---- In replay.cpp.
  int put_before(const Step& step);
  int change_again(RecordKey about, const Held& put_off);
  int redo_now(const Step& step, const char* message);
  int redo_all(const std::vector<HeldId>& ids);
  bool chkskip(const LogRecord& record, const char* message);
  int note_failure(const Step& step, const char* message);
  bool pass_if_taken_back(const Step& step);

  int apply(const Step& step, const char*& message);
  int apply_open(const Step& step);
  int apply_close(const Step& step);
  int apply_file(const Step& step);
  int apply_index(const Step& step);
  int apply_unique(const Step& step, const char*& message);
  void end_put_off(RecordKey about);
  int isfd_of(const Step& step);

  // ---- In replayimages.cpp.
  int apply_image(const Step& step);
  int change_record(const Step& step, const Image& image, int isfd);
  int change_as_found(const Step& step, const Image& image, int isfd);
  bool put_off(const Step& step, std::int32_t number);
  std::vector<HeldId> held_about(const Touch& touch, std::int32_t number);
  void add_standing(const Step& step, const Touch& touch, std::vector<HeldId>& found);
  void choose_standing(const std::vector<HeldId>& held, const Contents& file, Contents seen);
  [[nodiscard]] bool was_perhaps_not_made(const Held& held);
  std::optional<Doubt> refuted_by(const Step& step, const Image& image, int isfd);
  Way make_way(const Step& step, const Image& image, int isfd);
  void pass_taken_back(std::vector<HeldId>& found);
  bool is_refuted(const std::vector<HeldId>& held, std::size_t i, const Image& image);
  Way apply_giving_up(const Step& step, const Clash& clash);
  bool give_way(const Step& step, std::int32_t number, int isfd, const Clash* clash);
  bool change_instead(const Step& step, std::int32_t number, ConstBytes before);
  int undo_doubted(const Doubt& doubt, int isfd);
  void forget_doubted(const ReplayFile& file, std::int32_t number, const Doubt& doubt);
  [[nodiscard]] const Doubt* doubt_of_another(const Step& step, std::int32_t number,
                                              std::int64_t before) const;

  int mode_;
  RecoveryObserver& observer_;
  ErrorLog errors_;
  ReplayFiles files_;
  HeldRecords held_;
  LogOutlook outlook_{logstate.fd};
  Doubts doubts_;
  std::map<std::pair<std::int32_t, int>, std::string> skipped_;  // writers' opens, and their files
  std::unordered_map<std::int64_t, ReplayFile*> others_;         // see also_about(), by offset
  // Offsets of records that are not to be applied: what they take back was not, or was undone.
  std::unordered_set<std::int64_t> passed_over_;
  // Images that met a key in use, by what they are about. Perhaps the transaction went on to change
  // the record once more, or the key is set free by what follows.
  struct PutOff {
    HeldId id = kNoHeld;
    // Held records in hand before it: redo_put_off() applies it when as many are in hand again.
    std::size_t depth = 0;
    bool stands_for_more = false;  // images before it were put off as well
  };
  std::map<RecordKey, PutOff> put_off_;
  std::vector<std::size_t> put_off_at_;  // how many images of each depth are in put_off_
  bool may_put_off_ = true;              // false while what was put off is applied
  HeldId in_hand_ = kNoHeld;             // the held record that is being applied
  HeldId as_found_ = kNoHeld;            // the held record to be applied by change_as_found()
  std::deque<LogWindow> windows_;        // by depth: a held record in hand stays in its own
  std::int64_t skippable_numbers_ = 0;   // see lginsert
  std::size_t depth_ = 0;                // how many held records are in hand
  LogWindow look_{logstate.fd};          // for records that are not in hand, only looked at
};

}  // namespace isam::txlog
