#include "zentra/proposekeys.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "isam/keys/keys.h"
#include "zentra/keysfile.h"
#include "zentra/newkeys.h"
#include "zentra/text.h"

namespace zentra {
namespace {

// What the layouts that a root allows come to: the likeliest description, and in others the rest.
std::optional<KeyGuess> best_guess(TreeFinder& finder, std::int32_t root, keydescr& layout) {
  std::optional<KeyGuess> best;
  std::vector<std::string> others;
  for (const keydescr& one : finder.layouts_of(root)) {
    auto guess = guess_key(finder, root, one);
    if (!guess) continue;
    if (best && best->doubt <= guess->doubt) {
      others.push_back(line_of(guess->key));
      continue;
    }
    if (best) others.push_back(line_of(best->key));
    best = std::move(guess);
    layout = one;
  }
  if (!best || others.empty()) return best;
  best->is_certain = false;
  best->others.insert(best->others.end(), others.begin(), others.end());
  return best;
}

std::string text_of(const std::vector<ProposedKey>& all, std::int64_t records) {
  if (all.empty()) return "# no tree of this pair tells how its keys are described\n";
  std::string text = fmt::format(
      "# Key descriptions that the trees of this pair allow, and {} records agree to.\n"
      "# One index a line, the primary key first: that it comes first here is likely, not "
      "certain.\n"
      "# An index in the order of record numbers leaves no tree (its line is: number).\n"
      "# Parts side by side may have been one, and one several.\n",
      grouped(records));
  for (const auto& [root, guess] : all) {
    text += fmt::format("\n# the tree at node {}: {}\n", root,
                        guess.is_certain ? "certain" : "likely, not certain");
    for (const std::string& other : guess.others) text += fmt::format("# or: {}\n", other);
    text += line_of(guess.key) + '\n';
  }
  return text;
}

}  // namespace

std::vector<ProposedKey> keys_of_trees(std::int64_t& records) {
  TreeFinder finder;
  records = finder.records();
  std::vector<ProposedKey> all;
  if (records == 0) return all;
  for (const std::int32_t root : finder.possible_roots()) {
    keydescr layout{};
    auto guess = best_guess(finder, root, layout);
    if (!guess) continue;
    finder.claim(root, layout);
    const bool is_known = std::ranges::any_of(all, [&](const ProposedKey& one) {
      return isam::kycompare(one.guess.key, guess->key) == 0;
    });
    if (!is_known) all.push_back({.root = root, .guess = std::move(*guess)});
  }
  std::ranges::sort(all, {}, &ProposedKey::root);
  return all;
}

ProposedKeys propose_keys(const checker::Check& check) {
  std::int64_t records = 0;
  std::vector<ProposedKey> all;
  if (check.sized) all = keys_of_trees(records);
  ProposedKeys proposed{.keys = {}, .text = text_of(all, records)};
  for (const ProposedKey& one : all) proposed.keys.push_back(one.guess.key);
  return proposed;
}

}  // namespace zentra
