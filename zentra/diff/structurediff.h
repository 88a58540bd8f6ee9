// structurediff: what two pairs are, besides their records, and by what their records can be told
// apart.
//
// Needs   two pairs that are held still
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "zentra/diff/recordmatch.h"
#include "zentra/diff/twopairs.h"

namespace zentra {

// Something that the two have, in words; empty where one has none.
struct Unlike {
  std::string what;
  std::string a;
  std::string b;
};
[[nodiscard]] std::vector<Unlike> structure_differences(TwoPairs& pairs, bool with_unique_id);

struct ChosenOrder {
  Order order{};
  std::string words{};  // by what records are told apart
  std::string wrong{};  // why nothing is: the index that was asked for
};
// By index `wanted` of the first pair; or, with 0, by its primary key if the second pair has it,
// else by the first index that both have, one without duplicates if there is any.
[[nodiscard]] ChosenOrder choose_order(TwoPairs& pairs, int wanted);

}  // namespace zentra
