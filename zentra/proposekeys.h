// proposekeys: the key descriptions that the trees of a pair allow, where its own are gone.
#pragma once

#include <cstdint>
#include <vector>

#include "zentra/keyguess.h"

namespace zentra {

struct ProposedKey {
  std::int32_t root = 0;
  KeyGuess guess{};
};

// One for each intact tree of the current pair, by their roots, which were made in this order
// mostly. It must be held still, and the sizes in its dictionary have been checked.
[[nodiscard]] std::vector<ProposedKey> keys_of_trees(std::int64_t& records);

}  // namespace zentra
