// errorlog: what a recovery could not apply, as a log of its own.
//
// Each record left out is copied, unlinked and with the time of copying, and followed by a record
// of type "LM":
//
//   24 zero  28 iserrno  30 errno  32 iserrio  34 isstat1 to isstat4  38 text
//
// The text ends where the trailing length begins. Such is the format: without a text the trailing
// length stands in the place of isstat4.
#pragma once

#include <string_view>
#include <vector>

#include "common/holders.h"
#include "isam/log/logformat.h"

namespace isam::txlog {

inline constexpr const char* kErrorLogName = "isrecvr_err.log";

// Offsets in a message record.
namespace message_record {
inline constexpr int kError = 28;
inline constexpr int kSystemError = 30;
inline constexpr int kPlace = 32;
inline constexpr int kStatus = 34;
inline constexpr int kText = 38;
}  // namespace message_record

class ErrorLog {
 public:
  // Makes the file in the current folder: 0, or -1 with 120 (it exists, or cannot be made) or 121.
  int opbadlog();
  // Notes a record and why it was left out, with the codes in force, and clears these. An empty
  // LogRecord stands for none. Without a file made by opbadlog() it only clears the codes.
  void dobadlog(const LogRecord& record, std::string_view message);

 private:
  // Puts the LM record into the buffer, behind the record that it tells of.
  void bdmemlog(std::string_view message);

  common::FileHold fd_;
  std::int64_t end_ = 0;
  std::vector<Byte> buffer_;
};

}  // namespace isam::txlog
