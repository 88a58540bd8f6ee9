#include "zentra/repair/backed.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <string_view>
#include <variant>

#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/records/varlen.h"
#include "isam/tree/items.h"
#include "zentra/check/collector.h"
#include "zentra/pair/trailer.h"
#include "zentra/repair/pieces.h"

namespace zentra {
namespace {

using isam::filep;

// The pieces of a variable part; empty where some are missing.
std::set<std::int32_t> pieces_of(isam::ConstBytes trailer) {
  std::set<std::int32_t> pieces;
  int left = common::ldshort(trailer.data() + isam::kTrailerLength);
  isam::PieceChain chain{reference_of(trailer)};
  while (chain.pointer() != 0) {
    if (chain.is_too_long() || !pieces.insert(chain.pointer()).second) return {};
    const isam::PageHold page = chain.read();
    if (!page) return {};
    left -= isam::Rpage{page}.slot(chain.slot()).length;
    if (!chain.rprwalk()) return {};
  }
  if (left > 0) pieces.clear();
  return pieces;
}

struct Candidate {
  std::int32_t record;
  std::set<std::int32_t> pieces;
};

// Of records with variable parts.
void leave_out_sharing(const checker::Check& check, const BadRecords& bad,
                       std::vector<Candidate>& candidates) {
  std::set<std::int32_t> pieces;
  for (const Candidate& one : candidates) pieces.insert(one.pieces.begin(), one.pieces.end());
  if (pieces.empty()) return;
  std::set<std::int32_t> taken = pieces_of_others(check, bad, pieces);
  std::erase_if(candidates, [&](const Candidate& one) {
    return std::ranges::any_of(one.pieces,
                               [&](std::int32_t piece) { return !taken.insert(piece).second; });
  });
}

}  // namespace

Value key_of(const keydescr& k, isam::ConstBytes fixed) {
  isam::Item item;
  isam::itmake(fixed.data(), item, k);
  return key_value(k, item.key);
}

const FileBytes* key_in(const Fields& fields) {
  const auto at = std::ranges::find_if(
      fields, [](const auto& field) { return std::string_view{field.first} == "key"; });
  return at == fields.end() ? nullptr : std::get_if<FileBytes>(&at->second);
}

std::optional<std::int64_t> indexes_with_its_key(const Notes& notes,
                                                 const std::vector<keydescr>& keys,
                                                 std::int32_t record, isam::ConstBytes fixed) {
  std::int64_t backing = 0;
  for (std::size_t at = 0; at < keys.size(); ++at) {
    const auto* const astray = notes.astray(static_cast<int>(at) + 1);
    if (keys[at].nparts == 0 || astray == nullptr) continue;
    if (!astray->has_all_details()) return {};
    const Value key = key_of(keys[at], fixed);
    backing += std::ranges::any_of(astray->details, [&](const auto& detail) {
      const FileBytes* const found = key_in(detail.second);
      return detail.first == record && found != nullptr &&
             found->bytes == std::get<FileBytes>(key).bytes;
    });
  }
  return backing;
}

int find_backed(const checker::Check& check, const Notes& notes, const std::vector<keydescr>& keys,
                const BadRecords& bad, std::vector<std::int32_t>& backed) {
  const auto trees = std::ranges::count_if(keys, [](const keydescr& k) { return k.nparts > 0; });
  std::vector<isam::Byte> fixed(static_cast<std::size_t>(filep->geometry.reclen));
  std::vector<isam::Byte> trailer(static_cast<std::size_t>(trailer_size()));
  const isam::KeepError keep;
  std::vector<Candidate> candidates;
  for (const BadRecord& one : bad) {
    if (one.why != Why::kOddState || trees == 0) continue;
    if (!read_slot(one.record, fixed, trailer)) return errno;
    const auto backing = indexes_with_its_key(notes, keys, one.record, fixed);
    if (!backing) break;
    if (*backing != trees) continue;
    std::string variable;
    if (const int failed = variable_part(trailer, variable)) return failed;
    isam::clear_errors();
    const bool has_part = filep->geometry.varlen && reference_of(trailer) != 0;
    const bool is_short =
        filep->geometry.varlen &&
        common::ldshort(trailer.data() + isam::kTrailerLength) != static_cast<int>(variable.size());
    std::set<std::int32_t> pieces;
    if (has_part) pieces = pieces_of(trailer);
    if (is_short || (has_part && pieces.empty())) continue;
    candidates.push_back({one.record, std::move(pieces)});
  }
  leave_out_sharing(check, bad, candidates);
  isam::clear_errors();
  for (const Candidate& one : candidates) backed.push_back(one.record);
  return 0;
}

}  // namespace zentra
