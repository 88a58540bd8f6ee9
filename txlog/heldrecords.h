// heldrecords: the records of writers inside transactions, held until the transactions end.
//
// Each writer's are listed in the order of the log. What is still to be applied can also be found
// by the file, and by the file and the record that it is about, again in the order of the log: a
// record of another writer may say that some of it stands in the files.
//
// Keeps   H1 finding takes steps in proportion to what is found. What a log can do to make it take
//            more is bounded: then it is said to be exhausted
//         H2 a held record costs about 64 bytes, less than most take in the log
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "isam/log/logformat.h"

namespace isam::txlog {

class LogOutlook;
struct ReplayFile;
struct Writer;

using HeldId = std::uint32_t;
inline constexpr HeldId kNoHeld = UINT32_MAX;

// A list of held records, linked through them.
struct HeldList {
  HeldId first = kNoHeld;
  HeldId last = kNoHeld;
};

// What a record is about, as far as others' records can be about the same.
enum class About : std::uint8_t {
  kNothing,  // a mark
  kClosing,  // the closing of a file
  kOpening,  // ... and its opening
  kFile,     // a file as a whole
  kRecord,   // one record of it
};

struct Held {
  std::int64_t offset = 0;
  Writer* writer = nullptr;
  ReplayFile* file = nullptr;  // null: none that is known
  std::int32_t number = 0;     // of the record
  std::uint16_t length = 0;
  About about = About::kNothing;
  bool linked : 1 = false;
  bool done : 1 = false;      // applied before its turn
  bool passed : 1 = false;    // not applied at all: the file shows that it does not stand
  bool findable : 1 = false;  // to be found by its file
  bool chosen : 1 = false;    // while what goes first is gathered

  struct Links {
    HeldId before = kNoHeld;
    HeldId behind = kNoHeld;
  };
  HeldId next = kNoHeld;  // the writer's next
  Links by_record;
  Links by_file;
};

// A record that is applied, and what it can be about.
struct Touch {
  const Writer* writer = nullptr;
  std::int64_t offset = 0;
  ReplayFile* file = nullptr;
  About about = About::kNothing;
  bool all_records = false;  // whatever record of the file
};

class HeldRecords {
 public:
  // Adds a record behind all others.
  HeldId add(const Held& held);
  Held& operator[](HeldId id) { return pool_[id]; }
  // It is applied, or will be in its turn: it is not found any more.
  void hide(HeldId id);
  // It is not to be applied at all.
  void pass(HeldId id) {
    hide(id);
    pool_[id].passed = true;
  }
  void remove(HeldId id);
  [[nodiscard]] bool none_findable() const { return findable_ == 0; }

  // What other writers hold about one record before the one applied, in the order of the log.
  [[nodiscard]] std::vector<HeldId> about_record(const Touch& touch, std::int32_t number);
  // The same about its file as a whole; or all that is held about the file.
  [[nodiscard]] std::vector<HeldId> about_file(const Touch& touch);
  // Adds to what was found, all about one file, what goes with it: the same writers' openings of
  // the file before, and what they did to it outside of their transactions before what was found
  // of that. With images of a transaction that were not found, later ones of the same record wait.
  void complete(std::vector<HeldId>& found, LogOutlook& outlook);

  // One more record of the log has been read: by their number searching is bounded.
  void count_record() { ++records_; }
  // What a found record costs that must be looked into.
  void count_look() { steps_ += kStepsPerLook; }
  [[nodiscard]] bool is_exhausted() const {
    return steps_ > kFreeSteps + kStepsPerRecord * records_;
  }

 private:
  static constexpr std::int64_t kFreeSteps = 1 << 22;
  static constexpr std::int64_t kStepsPerRecord = 256;
  static constexpr std::int64_t kStepsPerLook = 64;

  using Which = Held::Links Held::*;

  [[nodiscard]] HeldList& bucket_of(const ReplayFile* file, std::int32_t number);
  void append(HeldList& list, HeldId id, Which which);
  void unlink(HeldList& list, HeldId id, Which which);
  HeldList& file_list(const Held& held);
  void grow();
  bool step() {
    ++steps_;
    return !is_exhausted();
  }

  void find_about(std::vector<HeldId>& found, const Touch& touch, About about, std::int32_t number);
  void find_all(std::vector<HeldId>& found, const Touch& touch, const HeldList& list);
  void add_companions(std::vector<HeldId>& found, ReplayFile& file, LogOutlook& outlook);
  [[nodiscard]] bool waits_for_image(const Held& held, LogOutlook& outlook);

  std::deque<Held> pool_;
  HeldId free_ = kNoHeld;
  std::vector<HeldList> buckets_ = std::vector<HeldList>(64);
  std::size_t findable_ = 0;
  std::int64_t records_ = 0;
  std::int64_t steps_ = 0;
};

}  // namespace isam::txlog
