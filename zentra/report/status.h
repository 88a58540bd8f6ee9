// status: what a run of `zentra` ends with, the same for all subcommands.
#pragma once

#include "checker/status.h"

namespace zentra {

using checker::kVerdictDone;
using checker::kVerdictSound;
using checker::Status;
using checker::verdict_of;
using checker::worse;

inline constexpr int kUsage = 16;  // the command line is wrong

}  // namespace zentra
