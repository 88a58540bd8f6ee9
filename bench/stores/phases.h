// phases: the same operations on any store, in one process, measured and checked.
#pragma once

#include <filesystem>
#include <string>

#include "bench/stores/model.h"
#include "bench/stores/store.h"

namespace bench {

// Reads record `number` and throws std::runtime_error unless some whole version of it is there.
void demand(Store& store, std::uint32_t number);

// Runs the phases on a file loaded in random order and then on one loaded in key order, each made
// in `folder`, and prints their lines under `name`. Returns what the second one holds, which is
// left there, closed.
Model run_alone(Store& store, const std::string& name, const std::filesystem::path& folder,
                std::uint32_t records);

// The same phases for a floor, as far as it has them, and some of run_many(): what it holds is not
// compared. `loads`: loads in random order and in bulk, too.
void run_floor(Store& store, const std::string& name, const std::filesystem::path& folder,
               std::uint32_t records, bool loads);

// Loads a file in key order, unmeasured and in bulk where the store has it: what it then holds,
// closed.
Model load_unmeasured(Store& store, const std::string& name, const std::filesystem::path& folder,
                      std::uint32_t records);

// Runs the phases with many records in one call, on a file loaded in key order by them, if the
// store has such calls.
void run_many(Store& store, const std::string& name, const std::filesystem::path& folder,
              std::uint32_t records);

// Runs phases on a file that may be larger than what its store keeps in memory, loaded by a bulk
// load where the store has it; before it, with `singly`, one loaded record by record.
void run_big(Store& store, const std::string& name, const std::filesystem::path& folder,
             std::uint32_t records, bool singly);

// Reads a file that the system has to read from the disk anew for each phase.
void run_cold(Store& store, const std::string& name, const std::filesystem::path& folder,
              std::uint32_t records);

}  // namespace bench
