// log_corpus: logs, error logs and audit trails to start fuzzing from, as processes of all kinds
// leave them.
#pragma once

#include <filesystem>

namespace fuzz {

// Writes them, one file each: the logs for every mode of recovery, and everything to be listed.
// Moves to another folder and back.
void write_log_corpus(const std::filesystem::path& recovery, const std::filesystem::path& listings);

}  // namespace fuzz
