// records: the records of the current pair as they lie in the data file, around what is damaged.
//
//   Records records{[](std::int32_t number, Records::Fault fault) { ... }};
//   Records::Batch batch;
//   while (records.next(batch)) ... batch.records ...   // in the order of their numbers
//   if (records.find(number, record)) ...               // one of them
//
// Needs   the current pair with its dictionary and geometry, held still
// Keeps   memory for a piece of the data file in each batch, and for variable parts up to a bound
// Gives   each record that is present. Of one whose variable part cannot be read, the rest
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "checker/usagemap.h"
#include "isam/base/format.h"

namespace zentra {

struct Record {
  std::int32_t number = 0;
  isam::ConstBytes fixed{};  // as long as the record length
  isam::ConstBytes tail{};   // the variable part
};

class Records {
 public:
  enum class Fault : std::uint8_t { kUnreadable, kTailLost };
  using Tell = std::function<void(std::int32_t number, Fault fault)>;

  explicit Records(Tell tell);

  // The highest number that the dictionary has in use, and the last slot of the data file: records
  // may lie behind the one, and be missing behind the other.
  [[nodiscard]] std::int32_t highest() const { return highest_; }
  [[nodiscard]] std::int32_t last() const { return last_; }

  // Records with bytes of their own, which stay as they are until the batch is filled anew.
  class Batch {
   public:
    [[nodiscard]] const std::vector<Record>& records() const { return records_; }

   private:
    friend class Records;

    std::vector<Record> records_;
    std::vector<isam::Byte> slots_;
    std::vector<isam::Byte> tails_;
    std::size_t tails_end_ = 0;  // what is taken of them
  };
  // The next records that are not among `done`: false behind the last.
  [[nodiscard]] bool next(Batch& to, const checker::UsageMap& done);
  // It stays readable until another is asked for.
  [[nodiscard]] bool find(std::int32_t number, Record& to);

 private:
  [[nodiscard]] std::int32_t read_slots(isam::Bytes to);
  void fill(Batch& to, std::int32_t slots, const checker::UsageMap& done);
  [[nodiscard]] bool take(std::int32_t number, const isam::Byte* slot, isam::Bytes room,
                          Record& to);
  [[nodiscard]] bool read_tail(const isam::Byte* trailer, isam::Bytes room, isam::ConstBytes& tail);

  Tell tell_;
  std::size_t length_;  // of the fixed part
  std::size_t slot_;
  std::int32_t highest_;
  std::int32_t last_;
  std::size_t greatest_tail_;
  std::int32_t at_ = 1;            // what comes next
  std::int32_t single_until_ = 0;  // before it, one slot at a time is read
  std::vector<isam::Byte> single_;
  std::vector<isam::Byte> tail_;
};

}  // namespace zentra
