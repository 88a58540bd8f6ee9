// outlook: what stands further on in a log, for two questions that its records up to some point do
// not answer: whether a change was taken back by its writer, and whether a file-open record inside
// a transaction is another process's that got the same number. Which transactions have ended is not
// asked here: Recovery holds a transaction's records until it meets the end mark.
//
// The whole log is read once, when the first question is asked that the next record does not
// answer.
//
// Keeps   O1 memory: some bytes for each process, and for each record that is an answer
#pragma once

#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

#include "isam/log/logread.h"

namespace isam::txlog {

class LogOutlook {
 public:
  explicit LogOutlook(int fd) : fd_(fd) {}

  // All offsets are of records in the log. A change that failed after its image was logged is taken
  // back by the image's opposite, the next record of the same process: same open and record
  // number, same link, the images exchanged.

  // The record that takes back the image at `image`; -1 when the image was not taken back.
  [[nodiscard]] std::int64_t opposite_of(std::int64_t image);
  // Whether the record takes an image back.
  [[nodiscard]] bool is_opposite(std::int64_t offset);
  // Whether the record is an image that was taken back, or takes one back: neither counts.
  [[nodiscard]] bool was_taken_back(std::int64_t offset) {
    return opposite_of(offset) >= 0 || is_opposite(offset);
  }

  // A file-open record behind a begin mark with the same process number, with no end mark between.
  struct Opening {
    LogRecord record;
    std::int64_t offset = 0;
    std::int64_t begin = 0;  // of the begin mark
    bool reopens = false;    // its open number is open already: rather another process wrote it
  };
  // Whether another process wrote it, which got the number of a killed one. Then neither this
  // record nor what follows it belongs to the transaction.
  [[nodiscard]] bool is_new_process(const Opening& opening);

 private:
  // An image, as far as its opposite must match it.
  struct Trace {
    LogType type = LogType::kUnknown;
    int open = 0;
    std::int32_t number = 0;
    Link previous;
    std::size_t old_hash = 0;
    std::size_t new_hash = 0;
  };
  // The last file-open record with an open number, behind the transaction's last linked record.
  struct LastOpening {
    std::int64_t offset = 0;
    // The last image through that open which names no record before it. Such an image is not
    // linked, or is the first of its process: a later record that is linked to it tells which.
    std::int64_t unlinked = 0;
  };
  // What was read of a process number so far.
  struct Process {
    bool begun = false;                  // inside a transaction,
    std::int64_t begin = 0;              // ... whose begin mark stands here
    std::int64_t chain_end = 0;          // the transaction's last linked record
    std::vector<std::int64_t> openings;  // file-open records since then; whose is not known yet
    std::unordered_map<int, LastOpening> by_number;  // ... by their open numbers
    std::int64_t last = 0;                           // the last record,
    Trace trace;                                     // ... if that is an image
  };

  void read();
  [[nodiscard]] bool is_followed_up(const Opening& opening);
  void follow_transaction(Process& process, const LogRecord& record, std::int64_t offset);
  void follow_link(Process& process, Link previous, std::int64_t offset);
  void leave_unclaimed(Process& process);
  static void end_transaction(Process& process);
  [[nodiscard]] static Trace trace_of(const LogRecord& record);
  [[nodiscard]] static bool are_opposites(const Trace& image, const Trace& next);

  int fd_;
  bool is_read_ = false;
  std::vector<std::pair<std::int64_t, std::int64_t>> taken_back_;  // image and opposite
  std::vector<std::int64_t> opposites_;
  // File-open records inside transactions, of which no later record shows that the process of the
  // transaction wrote them,
  std::vector<std::int64_t> unclaimed_;
  // ... and those of which one shows that another process did.
  std::vector<std::int64_t> of_new_processes_;
  LogWindow look_{fd_};
};

}  // namespace isam::txlog
