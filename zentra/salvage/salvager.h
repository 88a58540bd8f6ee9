// salvager: the records of a plan into a new pair, in passes over the data file.
//
//   1. what there is: how many records, what they look like, whose the pieces of variable parts are
//   2. the records into a bulk load; what is none into the losses
//   3. where a unique index refuses records: these into the losses
//
// Keeps   the same slots are taken for records in each pass; numbers of records stay, unless far
//         more numbers than records would be free
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>

#include "checker/interrupt.h"
#include "zentra/files/linefile.h"
#include "zentra/newpair/loader.h"
#include "zentra/newpair/newpair.h"
#include "zentra/salvage/oldparts.h"
#include "zentra/salvage/recordlook.h"
#include "zentra/salvage/salvageplan.h"

namespace zentra {

// Why something is lost or doubtful: a code, and in words what there are so many of.
enum class Doubt : std::uint8_t {
  kOddState,    // lost, unless it looks like a record and all are taken
  kUnread,      // lost: the disk does not give it
  kEnd,         // lost: bytes at the end that are no whole slot
  kVariable,    // its variable part is lost
  kEqualKeys,   // lost: another record has its key
  kUnused,      // lost: pieces of variable parts that no record names
  kTaken,       // doubtful: its state is odd, and it looks like a record
  kBesideOdd,   // doubtful: unlike others, and odd ones stand beside it
  kFoundAgain,  // doubtful: its variable part was found by its length
  kShared,      // doubtful: pieces of several records
  kStep,        // doubtful: slots go on at another place
  kMissing,     // lost: numbers in use of which there is no record
  kNoKeys,      // descriptions of indexes are lost
  kForeign,     // the index file has no variable parts of these records
  kNotKept,     // the numbers of records
  kChanged      // the source
};

class Salvager {
 public:
  Salvager(const SalvageOptions& options, SalvagePlan& plan);

  // False: why() tells, and there is no new pair.
  [[nodiscard]] bool run();

  [[nodiscard]] const std::string& why() const { return why_; }
  [[nodiscard]] std::int64_t records() const { return records_; }
  [[nodiscard]] const LineFile& losses() const { return losses_; }
  [[nodiscard]] const LineFile& deleted() const { return deleted_; }
  [[nodiscard]] const std::map<Doubt, std::int64_t>& doubts() const { return doubts_; }
  [[nodiscard]] std::int64_t lost() const { return lost_; }
  // ... for want of their variable part.
  [[nodiscard]] std::int64_t dropped() const { return dropped_; }
  // Records in the pair that may be none, or have the variable part of another.
  [[nodiscard]] std::int64_t doubtful() const { return doubtful_; }

 private:
  enum class Fate : std::uint8_t { kNothing, kTaken, kLost, kDeleted };
  struct Verdict {
    Fate fate = Fate::kNothing;
    std::optional<Doubt> doubt{};
  };

  bool fail(std::string why);
  bool fail_by_errno(const std::string& path);
  [[nodiscard]] bool is_free();
  [[nodiscard]] SlotWalk walk();
  [[nodiscard]] bool survey();
  void count();
  [[nodiscard]] bool settle();
  void count_missing();
  [[nodiscard]] Verdict judge(const SourceSlot& slot) const;
  [[nodiscard]] bool fill(NewPair& pair);
  [[nodiscard]] bool take(const SourceSlot& slot, Loader& loader);
  [[nodiscard]] bool lose(const SourceSlot& slot, LineFile& to, const char* reason);
  [[nodiscard]] bool is_taken_whole(const SourceSlot& slot);
  [[nodiscard]] bool lose_refused(std::span<const std::int32_t> refused);
  [[nodiscard]] bool lose_unused();
  [[nodiscard]] isam::Byte state_of(const SourceSlot& slot) const;

  const SalvageOptions& options_;
  SalvagePlan& plan_;
  RecordLook look_;
  std::optional<OldParts> parts_;
  LineFile losses_;
  LineFile deleted_;
  std::map<Doubt, std::int64_t> doubts_;
  bool has_odd_ = false;
  std::int64_t taken_ = 0;
  std::int64_t last_ = 0;   // number of the last record
  std::int64_t found_ = 0;  // slots that are not absent, up to the last number that was in use
  int greatest_part_ = 0;
  bool keeps_numbers_ = true;
  std::int64_t records_ = 0;
  std::int64_t lost_ = 0;
  std::int64_t dropped_ = 0;
  std::int64_t doubtful_ = 0;
  std::string why_;
};

// The code of a finding, and what is found so often.
struct DoubtWords {
  const char* code;
  const char* text;
};
[[nodiscard]] DoubtWords words_of(Doubt doubt);

}  // namespace zentra
