// writer: one process that wrote the log, as far as a recovery has read it.
//
// Records name their process by its number alone, and the system gives the number of a process that
// has ended to a new one. Where the records do not show that this has happened, several processes
// are one Writer.
#pragma once

#include <cstdint>
#include <map>

#include "txlog/heldrecords.h"

namespace isam::txlog {

// The file that one of a writer's opens stands for: it is named in the file-open record.
struct NamedFile {
  ReplayFile* file = nullptr;
  std::uint32_t epoch = 0;  // the writer's when the record was read
  std::int64_t offset = 0;  // of that record
};

struct Writer {
  std::int32_t process = 0;
  // By it a doubt is known to be this writer's. The writer gets a new one when another process may
  // have taken the number. 0: its start is not in the log, and its changes are not doubted.
  std::uint32_t serial = 0;
  // Raised when it opens a file by a number that is open: it is rather another process then, and
  // may open the numbers of earlier epochs, too. Until it does, named_by() still knows their files.
  std::uint32_t epoch = 0;
  bool begun = false;      // inside a transaction
  std::int64_t begin = 0;  // offset of the transaction's begin mark
  std::int64_t last = 0;   // offset of its last record; 0 behind a transaction's end
  HeldList held;           // records held back, in the log's order, by Held::next
  // By the writer's number of the open: what is open as far as the log was read,
  std::map<int, NamedFile> named;
  // ... and what is open as far as it was applied, which lags behind while records are held.
  std::map<int, ReplayFile*> opened;
  // The data record of its last change that was applied, if it may have been killed before making
  // it; see Doubts. No file: no change is in doubt.
  ReplayFile* doubted_file = nullptr;
  std::int32_t doubted_number = 0;
  std::int64_t doubted_at = 0;  // offset of the change's image in the log
  bool opened_since = false;    // it has opened a file since, so may be another process by now

  // The file of the open that a record is about; null when the log has not told of it.
  [[nodiscard]] const NamedFile* named_by(const LogRecord& record) const {
    const auto open = record.open_number();
    const auto found = open ? named.find(*open) : named.end();
    return found != named.end() ? &found->second : nullptr;
  }
  // Whether a record with its process number opens a file by an open number that has been in use
  // since this epoch began.
  [[nodiscard]] bool is_reopened_by(const LogRecord& record) const {
    const NamedFile* const open = record.type() == LogType::kOpened ? named_by(record) : nullptr;
    return open != nullptr && open->epoch == epoch;
  }
  // Whether a record is by the process that made the change in doubt: by its link, or by its open.
  [[nodiscard]] bool is_of_before(const LogRecord& record) const {
    const Link previous = record.previous();
    if (previous.length != 0) return previous.offset <= doubted_at;
    const NamedFile* const open = named_by(record);
    return open != nullptr && open->offset < doubted_at;
  }
};

}  // namespace isam::txlog
