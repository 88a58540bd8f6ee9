// tally: what the records of a log add up to, by kind and by transaction.
//
// A transaction begins with a begin mark and ends with the next commit or rollback of its process.
// One that another begin mark of the same process number follows, or that is open at the end of the
// log, is unfinished: its process was killed, or still runs.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "recover/describe.h"

namespace recover {

// How many records of each kind.
class KindCounts {
 public:
  void add(LogType type) { ++counts_[type]; }
  [[nodiscard]] std::int64_t total() const;
  // Such as "3: 1 begin, 1 insert, 1 commit".
  [[nodiscard]] std::string text() const;

 private:
  std::map<LogType, std::int64_t> counts_;
};

class Transactions {
 public:
  void add(const LogRecord& record, std::int64_t offset);
  // No more records follow.
  void finish();
  // A line of totals, and one for each transaction, up to a limit for each way of ending.
  // Unfinished ones, which a recovery drops, come first.
  [[nodiscard]] std::string text() const;

 private:
  enum class Ending { kUnfinished, kCommitted, kRolledBack };  // in the order of the listing
  struct Running {
    std::int64_t offset = 0;   // of the begin mark
    std::int64_t records = 0;  // marks included
  };
  struct Ended {
    std::int32_t process;
    Running transaction;
    std::int64_t last;  // offset of the end mark; of no meaning when there is none
  };

  void end(std::int32_t process, Ending how, std::int64_t offset);

  std::map<std::int32_t, Running> running_;
  std::map<Ending, std::vector<Ended>> ended_;
  std::map<Ending, std::int64_t> counts_;
  std::int64_t stray_marks_ = 0;   // ends without a begin, or with one that is not followed
  std::int64_t not_followed_ = 0;  // transactions begun while too many others were running
};

}  // namespace recover
