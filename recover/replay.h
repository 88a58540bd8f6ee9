// replay: a recovery from a log, and the report on it.
#pragma once

#include "recover/options.h"
#include "recover/output.h"

namespace recover {

// Applies the log to the files in the folder as the options say, and tells what was applied, what
// was left out and which transactions have no end. kSome when something was left out, kFailed when
// the recovery stopped or could not begin.
[[nodiscard]] Status replay_log(const Options& options);

}  // namespace recover
