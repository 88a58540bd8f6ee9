// status: how bad it is what was found of a pair, or what was done with it. Reports tell it as a
// verdict, `zentra` also by its exit status.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

namespace checker {

// From the best to the worst: over several pairs the worst counts.
enum class Status : int {
  kSound = 0,         // or done
  kDamaged = 1,       // its records can be found
  kNeedsSalvage = 2,  // or it is no pair at all
  kInUse = 3,
  kUnfinished = 4  // no such file, an error of the system, no memory
};
inline constexpr std::size_t kStatuses = 5;

[[nodiscard]] inline Status worse(Status a, Status b) { return std::max(a, b); }

// What status 0 says: a subcommand that checks nothing has no right to "sound".
inline constexpr const char* kVerdictSound = "sound";
inline constexpr const char* kVerdictDone = "done";

[[nodiscard]] constexpr const char* verdict_of(Status status, const char* good = kVerdictSound) {
  constexpr std::array<const char*, kStatuses> kVerdicts = {"", "damaged", "needs-salvage",
                                                            "in-use", "unfinished"};
  return status == Status::kSound ? good : kVerdicts.at(static_cast<std::size_t>(status));
}

}  // namespace checker
