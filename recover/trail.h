// trail: an audit trail as the operator reads it, one line an entry.
//
// Needs   nothing of the trail: it is only read, and not locked; a pair that is asked for it is
//         opened as by any program
// Never   keeps more than a window of it in memory
#pragma once

#include "recover/options.h"
#include "recover/output.h"

namespace recover {

// Prints the trail that the options name, else the one that the pair names. Before the latter is
// opened, the options' folder becomes the current one, for the pair's name of it starts there. What
// is damaged is passed by up to the next sound entry. kSome when anything was damaged, kFailed when
// the pair has no trail, or when the pair, the folder or the trail cannot be used.
[[nodiscard]] Status list_trail(const Options& options);

}  // namespace recover
