// trail: an audit trail as the operator reads it, one line an entry.
//
// Needs   nothing of the trail: it is only read, and not locked
// Never   keeps more than a window of it in memory
#pragma once

#include "recover/options.h"
#include "recover/output.h"

namespace recover {

// Prints the trail that the options name, or the one of the pair that they name. What is damaged is
// passed by up to the next sound entry. kSome when anything was damaged, kFailed when the pair or
// the trail cannot be read.
[[nodiscard]] Status list_trail(const Options& options);

}  // namespace recover
