// processes: many processes at once reading and changing one store.
#pragma once

#include <filesystem>
#include <string>

#include "bench/stores/model.h"
#include "bench/stores/store.h"

namespace bench {

// Measures 1, 2 and 4 processes, each with its own open of the store in `folder`: reading records
// at random, then reading nine times of ten and rewriting the tenth. Prints their lines under
// `name`. The store is closed before and after, and holds what the model says.
void run_together(Store& store, const std::string& name, const std::filesystem::path& folder,
                  Model& model);

}  // namespace bench
