// proposekeys: the key descriptions that the trees of a pair allow, where its own are gone.
#pragma once

#include <cstdint>
#include <vector>

#include "zentra/keys/keyguess.h"

namespace zentra {

struct ProposedKey {
  std::int32_t root = 0;
  KeyGuess guess{};
};

struct ProposedTrees {
  // One for each intact tree, by their roots, which were made in this order mostly.
  std::vector<ProposedKey> keys{};
  // Nodes of other trees, from the highest level down.
  std::vector<std::int32_t> unknown{};
  int system_error = 0;  // an errno: there may be others
};

// Of the current pair. It must be held still, and the sizes in its dictionary have been checked.
[[nodiscard]] ProposedTrees keys_of_trees(std::int64_t& records, Reading reading);

}  // namespace zentra
