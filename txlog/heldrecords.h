// heldrecords: the log records of writers inside transactions, held until the transactions end.
//
// The held records of a writer form a list in the order of the log. Those still to be applied can
// also be found by the file, and by the file and the data record that they are about, again in the
// order of the log: a log record of another writer may show that a held change stands in the files,
// which is then applied first.
//
// Keeps   H1 a search takes steps in proportion to what it finds, unless a log is made to slow it
//            down. The steps of all searches are bounded by the number of log records read: beyond
//            that is_exhausted() holds, searches end early, and the recovery is to stop
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

// What a log record is about. The order counts: from kOpening on a held record can be found by its
// file, from kFile on also by what it is about.
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
  std::int32_t number = 0;     // of the data record
  std::uint16_t length = 0;
  About about = About::kNothing;
  bool linked : 1 = false;    // an image of the transaction; others stand however that ends
  bool done : 1 = false;      // was applied, perhaps before its turn
  bool passed : 1 = false;    // is never applied: the file shows that the change does not stand
  bool findable : 1 = false;  // stands in the lists that searches walk: by_file and by_record
  bool chosen : 1 = false;    // is among what was found, while complete() runs

  // The neighbours in one list.
  struct Links {
    HeldId before = kNoHeld;
    HeldId behind = kNoHeld;
  };
  HeldId next = kNoHeld;  // the writer's next; once removed, the next free one
  Links by_record;        // in its bucket, which several files and data records may share
  Links by_file;          // in ReplayFile::linked or ReplayFile::unlinked
};

// A log record that is to be applied, as far as a search for held ones must know it.
struct Touch {
  const Writer* writer = nullptr;  // whose own records are not found; null: all writers' are
  std::int64_t offset = 0;         // only what stands before this in the log is found
  ReplayFile* file = nullptr;
  About about = About::kNothing;
  bool all_records = false;  // what is held about any data record of the file comes before it
};

class HeldRecords {
 public:
  // Adds a held record, which stands behind all others in the log.
  HeldId add(const Held& held);
  Held& operator[](HeldId id) { return pool_[id]; }
  // No search finds it any more: it is applied now, or will be in its turn.
  void hide(HeldId id);
  // It is never to be applied, and no search finds it any more.
  void pass(HeldId id) {
    hide(id);
    pool_[id].passed = true;
  }
  // Its place may serve another record; the writer's list is the caller's.
  void remove(HeldId id);
  [[nodiscard]] bool none_findable() const { return findable_ == 0; }

  // The held records about data record `number` of the touch's file, in the order of the log.
  [[nodiscard]] std::vector<HeldId> about_record(const Touch& touch, std::int32_t number);
  // The held records about the file as a whole; with Touch::all_records all that are about the file
  // or its data records, without openings, in an order that only complete() puts right.
  [[nodiscard]] std::vector<HeldId> about_file(const Touch& touch);
  // Adds to `found`, which is all about one file, what is to be applied with it, and sorts it in
  // the order of the log. What is added of each writer in `found`:
  //   - its openings of the file before its last record in `found`
  //   - what it did to the file outside of its transaction, before the last of such records in
  //     `found`. A change waits, though, when the writer's transaction holds an earlier image of
  //     the same data record that is neither in `found` nor taken back
  void complete(std::vector<HeldId>& found, LogOutlook& outlook);

  // Counts one more log record that was read: their number bounds the steps of searches.
  void count_record() { ++records_; }
  // Counts a found record whose bytes are read from the log, which costs more than a step.
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
  // Counts one step of a search: false when the search must end.
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
