// log_corpus: logs to start fuzzing from, as processes of all kinds leave them.
#pragma once

#include <filesystem>

namespace fuzz {

// Writes them to `folder`, one file each, for every mode of recovery. Moves to another folder and
// back.
void write_log_corpus(const std::filesystem::path& folder);

}  // namespace fuzz
