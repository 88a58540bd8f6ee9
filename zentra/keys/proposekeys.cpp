#include "zentra/keys/proposekeys.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "isam/base/current.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"
#include "zentra/keys/keysfile.h"
#include "zentra/keys/newkeys.h"
#include "zentra/pair/readahead.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

// What the layouts that a root allows come to: the likeliest description, and in others the rest.
std::optional<KeyGuess> best_guess(TreeFinder& finder, std::int32_t root, Reading reading,
                                   keydescr& layout) {
  std::optional<KeyGuess> best;
  std::vector<std::string> others;
  for (const keydescr& one : finder.layouts_of(root)) {
    auto guess = guess_key(finder, root, one, reading);
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

// What is missing in the proposal.
std::string gaps_of(const ProposedTrees& trees) {
  constexpr std::size_t kFewShown = 5;
  std::string text;
  if (counted_indexes() > trees.keys.size()) {
    text = fmt::format("# These are {} of the {} indexes that the dictionary counts.\n",
                       trees.keys.size(), counted_indexes());
  }
  const std::size_t shown = std::min(kFewShown, trees.unknown.size());
  if (shown == 0) return text;
  return text + fmt::format("# Trees, or parts of them, that are not understood: at node {}{}.\n",
                            fmt::join(trees.unknown.begin(), trees.unknown.begin() + shown, ", "),
                            shown < trees.unknown.size() ? " and others" : "");
}

std::string text_of(const ProposedTrees& trees, std::int64_t records) {
  const std::vector<ProposedKey>& all = trees.keys;
  if (all.empty()) return "# no tree of this pair tells how its keys are described\n";
  std::string text = fmt::format(
      "# Key descriptions that the trees of this pair allow, and {} records agree to.\n"
      "# One index a line, the primary key first: that it comes first here is likely, not "
      "certain.\n"
      "# An index in the order of record numbers leaves no tree (its line, the first, is: "
      "number).\n"
      "# Parts side by side may have been one, and one several.\n",
      grouped(records));
  text += gaps_of(trees);
  for (const auto& [root, guess] : all) {
    text += fmt::format("\n# the tree at node {}: {}\n", root,
                        guess.is_certain ? "certain" : "likely, not certain");
    for (const std::string& other : guess.others) text += fmt::format("# or: {}\n", other);
    text += line_of(guess.key) + '\n';
  }
  return text;
}

}  // namespace

std::size_t counted_indexes() {
  const int counted = isam::dictp->d_nkeys();
  const bool may_be = counted > 0 && std::cmp_less_equal(counted, isam::kMostDescriptions);
  return may_be ? static_cast<std::size_t>(counted) : 0;
}

ProposedTrees keys_of_trees(std::int64_t& records, Reading reading) {
  TreeFinder finder;
  records = finder.records();
  ProposedTrees trees;
  std::vector<ProposedKey>& all = trees.keys;
  if (records == 0) {
    trees.system_error = finder.system_error();
    return trees;
  }
  for (const std::int32_t root : finder.possible_roots()) {
    keydescr layout{};
    auto guess = best_guess(finder, root, reading, layout);
    if (!guess && !finder.is_claimed(root)) trees.unknown.push_back(root);
    if (!guess) continue;
    finder.claim(root, layout);
    const bool is_known = std::ranges::any_of(all, [&](const ProposedKey& one) {
      return isam::kycompare(one.guess.key, guess->key) == 0;
    });
    if (!is_known) all.push_back({.root = root, .guess = std::move(*guess)});
  }
  std::ranges::sort(all, {}, &ProposedKey::root);
  trees.system_error = finder.system_error();
  return trees;
}

ProposedKeys propose_keys(const checker::Check& check) {
  std::int64_t records = 0;
  ProposedTrees trees;
  const Reading reading = data_exceeds_cache() ? Reading::kByNumber : Reading::kByTree;
  if (check.sized) trees = keys_of_trees(records, reading);
  ProposedKeys proposed{
      .keys = {}, .text = text_of(trees, records), .system_error = trees.system_error};
  for (const ProposedKey& one : trees.keys) proposed.keys.push_back(one.guess.key);
  return proposed;
}

}  // namespace zentra
