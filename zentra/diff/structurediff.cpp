#include "zentra/diff/structurediff.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <utility>

#include "isam/base/current.h"
#include "isam/keys/keys.h"
#include "locale/collation.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using Facts = std::vector<std::pair<std::string, std::string>>;

std::string locale_of(Side& side) {
  side.use();
  const auto& dictionary = *isam::dictp;
  if (!dictionary.d_collate()) return "c";
  return {dictionary.d_collname(), ::strnlen(dictionary.d_collname(), isam::kCollationNameSize)};
}

Facts facts_of(Side& side, bool with_unique_id) {
  side.use();
  const isam::Geometry& is = side.shape;
  Facts facts = {{"record length", is.varlen ? fmt::format("{} to {}", is.reclen, is.maxreclen)
                                             : std::to_string(is.reclen)},
                 {"node size", std::to_string(is.idxsize + 1)},
                 {"bytes of a duplicate number", std::to_string(isam::dictp->d_dupsize())},
                 {"locale of keys", shown(locale_of(side))}};
  if (with_unique_id) facts.emplace_back("next unique id", std::to_string(isam::dictp->d_uniqid()));
  int number = 0;
  for (const keydescr& k : side.keys) {
    facts.emplace_back(fmt::format("index {}", ++number), key_in_words(k));
  }
  return facts;
}

bool fits(const keydescr& k, const Side& side) {
  return std::all_of(k.part, k.part + k.nparts, [&side](const keypart& part) {
    return part.start + part.length <= side.shape.reclen;
  });
}

bool has(const Side& side, const keydescr& k) {
  return std::ranges::any_of(
      side.keys, [&k](const keydescr& other) { return isam::kycompare(other, k) == 0; });
}

// Whether the client's locale is that of both pairs.
bool is_locale_of(TwoPairs& pairs) {
  if (locale::chkulxinit() != 0) return false;
  const std::string_view client = locale::file_system_name();
  return locale_of(pairs[0]) == client && locale_of(pairs[1]) == client;
}

// All bytes count: an order of the application's, or a locale that is not to be had, is that of
// the bytes.
Order order_by(TwoPairs& pairs, keydescr k) {
  constexpr int kTypeMask = 127;
  const bool by_locale = is_locale_of(pairs);
  for (keypart& part : std::span{k.part, static_cast<std::size_t>(k.nparts)}) {
    const int type = part.type & kTypeMask;
    const bool is_by_bytes = isam::clchktype(type) && !(type == KT_LOCALE && by_locale);
    if (is_by_bytes) part.type = static_cast<std::int16_t>((part.type & KT_DESC) | KT_CHAR);
  }
  return {.key = k};
}

ChosenOrder chosen(TwoPairs& pairs, std::size_t at) {
  const keydescr& k = pairs[0].keys[at];
  return {.order = order_by(pairs, k),
          .words = fmt::format("index {}: {}", at + 1, key_in_words(k))};
}

}  // namespace

std::vector<Unlike> structure_differences(TwoPairs& pairs, bool with_unique_id) {
  const Facts a = facts_of(pairs[0], with_unique_id);
  const Facts b = facts_of(pairs[1], with_unique_id);
  std::vector<Unlike> all;
  for (std::size_t at = 0; at < std::max(a.size(), b.size()); ++at) {
    const std::string& what = at < a.size() ? a[at].first : b[at].first;
    std::string of_a = at < a.size() ? a[at].second : "";
    std::string of_b = at < b.size() ? b[at].second : "";
    if (of_a != of_b) all.push_back({what, std::move(of_a), std::move(of_b)});
  }
  return all;
}

ChosenOrder choose_order(TwoPairs& pairs, int wanted) {
  const std::vector<keydescr>& keys = pairs[0].keys;
  if (wanted > 0) {
    const auto at = static_cast<std::size_t>(wanted) - 1;
    if (at >= keys.size() || keys[at].nparts == 0) {
      return {.wrong = fmt::format("{} has no index {} with parts", shown(pairs[0].name), wanted)};
    }
    if (!fits(keys[at], pairs[1])) {
      return {.wrong = fmt::format("index {} lies beyond the records of {}", wanted,
                                   shown(pairs[1].name))};
    }
    return chosen(pairs, at);
  }
  const bool has_primary = !keys.empty() && keys.front().nparts > 0;
  const bool has_other = !pairs[1].keys.empty() && pairs[1].keys.front().nparts > 0;
  if (has_primary && has(pairs[1], keys.front())) return chosen(pairs, 0);
  for (const bool with_duplicates : {false, true}) {
    for (std::size_t at = 0; (has_primary || has_other) && at < keys.size(); ++at) {
      const bool is_unique = (keys[at].flags & KF_DUPS) == 0;
      if (keys[at].nparts == 0 || (!is_unique && !with_duplicates)) continue;
      if (has(pairs[1], keys[at])) return chosen(pairs, at);
    }
  }
  if (has_primary && fits(keys.front(), pairs[1])) return chosen(pairs, 0);
  return {.words = "record number"};
}

}  // namespace zentra
