// outlook: what stands further on in a log, for the few questions that its records up to some point
// do not answer.
//
// The whole log is read once, when the first question is asked.
//
// Keeps   O1 memory: some bytes for each process, and for each record that is an answer
#pragma once

#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

#include "txlog/logfile.h"

namespace isam::txlog {

class LogOutlook {
 public:
  explicit LogOutlook(int fd) : fd_(fd) {}

  // Where the record is that takes an image back: the next one of its writer, if it is the image's
  // opposite; else -1.
  [[nodiscard]] std::int64_t opposite_of(std::int64_t image);

  [[nodiscard]] bool is_opposite(std::int64_t offset);

  // Whether the process that opens a file by the record at `offset` is another one than the one
  // with the same number whose transaction is open: what follows is no part of that transaction.
  [[nodiscard]] bool is_new_process(std::int64_t offset);

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
  struct Process {
    bool begun = false;
    std::int64_t begin = 0;
    std::vector<std::int64_t> openings;  // since then, of which is not known whose they are
    std::int64_t last = 0;
    Trace trace;  // of the last record; none unless it is an image
  };

  void read();
  void follow_transaction(Process& process, const LogRecord& record, std::int64_t offset);
  void settle(Process& process);
  [[nodiscard]] static Trace trace_of(const LogRecord& record);
  [[nodiscard]] static bool are_opposites(const Trace& image, const Trace& next);

  int fd_;
  bool is_read_ = false;
  std::vector<std::pair<std::int64_t, std::int64_t>> taken_back_;  // image and opposite
  std::vector<std::int64_t> opposites_;
  std::vector<std::int64_t> of_new_processes_;
};

}  // namespace isam::txlog
