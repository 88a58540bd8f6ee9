// loglisting: a transaction log as the operator reads it, one line a record.
//
// Needs   nothing of the file: it is only read, and not locked
// Never   keeps more than a window of it and a bounded number of transactions and names in memory
#pragma once

#include <string>

#include "recover/output.h"

namespace recover {

// Prints the log, with `dump` also the bytes of images and of what could not be taken apart; then
// how many records of what kind it has and how the transactions in it ended. An empty file counts
// as a log. kSome when the log is damaged or ends with a part of a record, kFailed when the file
// cannot be read or is not a log.
[[nodiscard]] Status list_log(const std::string& path, bool dump);

}  // namespace recover
