// describe: log records in words.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "isam/log/logformat.h"

namespace recover {

using isam::txlog::LogRecord;
using isam::txlog::LogType;

// What a type of record is about, such as "insert".
[[nodiscard]] const char* words_of(LogType type);
// The type of a record; unlike its own answer this one leaves iserrno alone.
[[nodiscard]] LogType type_of(const LogRecord& record);

// The files that the writers' opens stand for, learnt from the file-open records met so far. Their
// number is bounded, whatever the log holds.
class OpenNames {
 public:
  // Notes which file an open stands for when the record is a file-open record.
  void learn(const LogRecord& record);
  // Forgets an open when the record is its close.
  void forget(const LogRecord& record);
  // The file that the record is about; empty when it is about none, or none is known.
  [[nodiscard]] std::string_view name_for(const LogRecord& record) const;

 private:
  using Open = std::pair<std::int32_t, int>;  // process, and its number of the open
  std::map<Open, std::string> names_;
};

// Type, process, user and time of a record, in columns, what its payload says and its link.
[[nodiscard]] std::string describe(const LogRecord& record, const OpenNames& names);
// The heading over such columns.
[[nodiscard]] std::string description_heading();
// The images of a record as lines of bytes; of a record without them, the payload when that could
// not be taken apart, else nothing.
[[nodiscard]] std::string dump_of(const LogRecord& record);
// Whether the payload is what the record's type demands; false for an unknown type.
// LogRecord::is_sound() is about the length.
[[nodiscard]] bool payload_is_sound(const LogRecord& record);

}  // namespace recover
