// keyguess: what key description the items of a tree and their records allow.
//
// Each byte of a key is looked for in the records: what stands there in every record may be its
// place. Bytes whose places follow each other make a run. The order of the items tells which types
// the parts of a run may have: a type is out when two neighbours are not in its order.
//
// Needs   a tree that is intact under a layout
// Gives   the likeliest description; whether it is the only one that the records allow
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "isam.h"
#include "zentra/keys/treefinder.h"

namespace zentra {

struct KeyGuess {
  keydescr key{};
  bool is_certain = false;            // no other description gives these items
  std::vector<std::string> others{};  // what else fits, in words; not all of it
  int doubt = 0;                      // the less the likelier, among layouts of one tree
};

// In which order records are read to be compared: the tree's, or, by sorting the keys in a
// temporary file, their own.
enum class Reading : std::uint8_t { kByTree, kByNumber };

// None when not every record has the keys at one place.
[[nodiscard]] std::optional<KeyGuess> guess_key(TreeFinder& finder, std::int32_t root,
                                                const keydescr& layout, Reading reading);

}  // namespace zentra
