// freenumbers: record numbers that are neither in use nor free.
#pragma once

#include <cstdint>
#include <functional>

#include "checker/usagemap.h"

namespace zentra {

// Adds to `accounted`, which covers the numbers up to `last`, those of the current pair's list of
// free records and those that other processes have locked. False: the list cannot be followed to
// its end.
[[nodiscard]] bool account_for_free(checker::UsageMap& accounted, std::int32_t last);

// Tells the numbers from 1 to `last` that are not in the map, in runs.
void tell_missing(const checker::UsageMap& accounted, std::int32_t last,
                  const std::function<void(std::int32_t first, std::int32_t last)>& told);

}  // namespace zentra
