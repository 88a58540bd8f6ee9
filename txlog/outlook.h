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

#include "isam/log/logfile.h"

namespace isam::txlog {

class LogOutlook {
 public:
  explicit LogOutlook(int fd) : fd_(fd) {}

  // Where the record is that takes an image back: the next one of its writer, if it is the image's
  // opposite; else -1.
  [[nodiscard]] std::int64_t opposite_of(std::int64_t image);

  [[nodiscard]] bool is_opposite(std::int64_t offset);
  // Whether a record is such an image, or its opposite.
  [[nodiscard]] bool was_taken_back(std::int64_t offset) {
    return opposite_of(offset) >= 0 || is_opposite(offset);
  }

  // A file-open record of a process number whose transaction, begun at `begin`, is open. `reopens`:
  // it opens by a number that is open already, so rather by another process.
  struct Opening {
    LogRecord record;
    std::int64_t offset = 0;
    std::int64_t begin = 0;
    bool reopens = false;
  };
  // Whether it is by another process with the number: what follows is no part of the transaction.
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
  // The last opening by a number, since the transaction began.
  struct LastOpening {
    std::int64_t offset = 0;
    std::int64_t unlinked = 0;  // its last image that is linked to none, or that begins a chain
  };
  struct Process {
    bool begun = false;
    std::int64_t begin = 0;
    std::int64_t chain_end = 0;          // the transaction's last linked record
    std::vector<std::int64_t> openings;  // since then, of which is not known whose they are
    std::unordered_map<int, LastOpening> by_number;
    std::int64_t last = 0;
    Trace trace;  // of the last record; none unless it is an image
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
  std::vector<std::int64_t> unclaimed_;  // openings that nothing shows to be the same process's
  std::vector<std::int64_t> of_new_processes_;  // ... and those that are shown to be another's
  LogWindow look_{fd_};
};

}  // namespace isam::txlog
