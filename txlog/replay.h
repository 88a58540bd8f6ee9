// replay: applying one record of a log after another to the files.
//
// A record is evidence about those before it, for the process that wrote it could do what it did:
//
//   what others hold about the same record   their processes are dead, and it stands in the files:
//                                            it is applied first
//   a key or number that is taken            by what somebody else gave up in a transaction (which
//                                            is applied first), or by the last record of a process
//                                            that was killed before it was made (which gives way)
//   an old image that the file does not have the last change of that record was not made either
//
// An image that its writer took back need not be applicable: then both are passed over.
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
  ReplayFile* file = nullptr;  // that it is about; null: none that is known
};

// Whether a record of this type is applied at all.
[[nodiscard]] bool is_applied(LogType type);
[[nodiscard]] About about_of(LogType type);

// A file's id, and the number of a record.
using RecordKey = std::pair<std::uint32_t, std::int32_t>;

class Replay {
 public:
  Replay(int mode, RecoveryObserver& observer) : mode_(mode), observer_(observer) {}

  // All of them: 0, or -1 with iserrno when the recovery must stop.
  int start();
  int redo(const Step& step);
  // A record that is held; it is not found any more.
  int redo_held(HeldId id);
  // Held records have been applied that belong together: what was put off among them is due, but
  // not what is about `except`.
  int redo_put_off(RecordKey except = {});
  void note(const LogRecord& record, std::string_view message);

  // The record that is held; none, with iserrno, when it cannot be read. It stays at hand until
  // the next one is asked for or applied.
  [[nodiscard]] LogRecord load(const Held& held);
  // Besides its file, the record at this place is about this one, which had the name before.
  void also_about(std::int64_t offset, ReplayFile& file) { others_[offset] = &file; }
  // The record at this place is not to be applied.
  void pass_over(std::int64_t offset) { passed_over_.insert(offset); }
  // Whether there are opens of a process that could not be opened here.
  [[nodiscard]] bool has_skipped(std::int32_t process) const;
  // The process is gone: its opens are closed.
  void close_opens(Writer& writer);

  HeldRecords& held() { return held_; }
  ReplayFiles& files() { return files_; }
  LogOutlook& outlook() { return outlook_; }
  Doubts& doubts() { return doubts_; }

 private:
  // Records in hand at once, each because of the one before it.
  static constexpr std::size_t kDeepest = 16;

  // The result of an image that is not to be applied now, or not at all.
  static constexpr int kPutOff = 1;

  enum class Way { kNone, kMade, kUnneeded, kFailed };

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
  int apply_image(const Step& step);
  int change_record(const Step& step, const Image& image, int isfd);
  int change_as_found(const Step& step, const Image& image, int isfd);
  bool put_off(const Step& step, std::int32_t number);
  void end_put_off(RecordKey about);
  int isfd_of(const Step& step);

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
  std::unordered_map<std::int64_t, ReplayFile*> others_;         // by offset
  std::unordered_set<std::int64_t> passed_over_;  // offsets of what takes back what was not applied
  // Images that met a key in use, by what they are about. Perhaps the transaction went on to change
  // the record once more, or the key is set free by what follows.
  struct PutOff {
    HeldId id = kNoHeld;
    std::size_t depth = 0;
    bool stands_for_more = false;  // images before it were put off as well
  };
  std::map<RecordKey, PutOff> put_off_;
  std::vector<std::size_t> put_off_at_;  // how many of them, by depth
  bool may_put_off_ = true;              // false while what was put off is applied
  HeldId in_hand_ = kNoHeld;             // the held record that is being applied
  HeldId as_found_ = kNoHeld;            // the held record to be applied by change_as_found()
  std::deque<LogWindow> windows_;        // one for each record in hand that was held
  std::int64_t skippable_numbers_ = 0;   // see lginsert
  std::size_t depth_ = 0;
  LogWindow look_{logstate.fd};  // for what is compared only
};

}  // namespace isam::txlog
