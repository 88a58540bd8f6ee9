#include "zentra/salvage/oldparts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <utility>

#include "isam/base/format.h"
#include "isam/records/varlen.h"
#include "zentra/check/collector.h"
#include "zentra/pair/trailer.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::ConstBytes;
using isam::Rpage;

constexpr std::size_t kMemory = std::size_t{8} << 20;
constexpr std::size_t kMost = std::size_t{1} << 17;  // broken parts, and pieces nobody names
constexpr std::size_t kNamedSize = 5;                // node and slot

int length_of(ConstBytes trailer) { return common::ldword(trailer.data() + isam::kTrailerLength); }
// What has this key, if nothing else has; there may be very many that do.
template <typename Map>
const typename Map::mapped_type* only_one(const Map& map, int key) {
  const auto [first, end] = map.equal_range(key);
  return first != end && std::next(first) == end ? &first->second : nullptr;
}

bool is_big(const Rpage& page) {
  constexpr int kEnoughSigns = 2;
  const int goes_on = page.says_it_goes_on() ? 1 : 0;
  const int has_one_slot = page.slot_count() == 1 ? 1 : 0;
  const int is_full = page.slot(0).length == page.geometry().chunk ? 1 : 0;
  return goes_on + has_one_slot + is_full >= kEnoughSigns;
}

}  // namespace

OldParts::OldParts(OldIndex& index, int greatest)
    : index_(index),
      greatest_(greatest > 0 ? greatest : isam::kMaxRecordLength),
      chunk_(isam::RpageGeometry{index.stored_size()}.chunk),
      named_({.entry_size = kNamedSize,
              .key_size = kNamedSize,
              .memory = kMemory,
              .folder = temporary_folder(),
              .order = {}}) {}

OldParts::Place OldParts::place_of(std::int32_t pointer) {
  return static_cast<Place>(isam::rpage::pointer_node(pointer)) << 8 |
         static_cast<Place>(isam::rpage::pointer_slot(pointer));
}

std::optional<OldParts::Piece> OldParts::piece_at(Place place, int left, ConstBytes& bytes) {
  const auto node = static_cast<std::int32_t>(place >> 8);
  const int slot = static_cast<int>(place & 0xFF);
  const isam::Bytes page = index_.node(node);
  if (node < 2 || page.empty() || !index_.may_be_storage(page)) return {};
  const Rpage view{page, index_.stored_size()};
  if (left > chunk_) {
    if (slot != 0 || !is_big(view)) return {};
    bytes = ConstBytes{page}.subspan(isam::rpage::kData, static_cast<std::size_t>(chunk_));
    return Piece{chunk_, place_of(view.named_piece())};
  }
  if (slot >= view.geometry().slots_that_fit()) return {};
  const Rpage::Slot entry = view.slot(slot);
  if (entry.length < left || !view.readable(entry)) return {};
  bytes = ConstBytes{page}.subspan(static_cast<std::size_t>(entry.offset),
                                   static_cast<std::size_t>(entry.length));
  return Piece{entry.length, 0};
}

// Until no more than `stop_at` is left.
OldParts::Walk OldParts::follow(Place from, int length, int stop_at) {
  Walk walk{.left = length};
  for (Place place = from; walk.left > stop_at;) {
    ConstBytes bytes;
    const bool is_met_again = std::ranges::find(walk.places, place) != walk.places.end();
    const auto piece = is_met_again ? std::nullopt : piece_at(place, walk.left, bytes);
    if (!piece) {
      const auto node = static_cast<std::int32_t>(place >> 8);
      walk.leads_to_gone = node > 1 && index_.is_gone(node);
      walk.leads_astray = node > 1 && !walk.leads_to_gone && !index_.node(node).empty();
      break;
    }
    const int own = std::min(walk.left, piece->length);
    walk.has_surplus = piece->length > own;
    walk.bytes += as_text(bytes.first(static_cast<std::size_t>(own)));
    walk.places.push_back(place);
    walk.last_left = walk.left;
    walk.left -= own;
    place = piece->next;
  }
  return walk;
}

// As far as pieces name others; none where that is no chain.
std::optional<OldParts::Walk> OldParts::follow_to_end(Place from) {
  Walk walk;
  const auto most = static_cast<std::size_t>(greatest_);
  for (Place place = from; walk.bytes.size() <= most;) {
    const isam::Bytes page = index_.node(static_cast<std::int32_t>(place >> 8));
    if (page.empty() || !index_.is_storage(page)) return {};
    const bool goes_on = Rpage{page, index_.stored_size()}.is_big();
    ConstBytes bytes;
    const auto piece = piece_at(place, goes_on ? chunk_ + 1 : 1, bytes);
    if (!piece) return {};
    walk.bytes += as_text(bytes);
    walk.places.push_back(place);
    if (!goes_on) break;
    place = piece->next;
  }
  if (walk.bytes.size() > most) return {};
  return walk;
}

bool OldParts::has_odd_length(int length, Place first) const {
  return length > greatest_ || (length == 0 && first != 0);
}

int OldParts::note(std::int64_t record, ConstBytes trailer, bool is_sure) {
  const Place first = place_of(reference_of(trailer));
  const int length = length_of(trailer);
  if (length == 0 && first == 0) return 0;
  const bool is_odd = has_odd_length(length, first);
  const Walk walk = is_odd ? Walk{.left = length} : follow(first, length);
  if (is_odd || walk.left > 0 || walk.has_surplus) {
    if (!is_sure) return 0;
    astray_ += walk.leads_astray || walk.has_surplus ? 1 : 0;
    if (broken_.size() >= kMost) {
      is_too_much_ = true;
    } else {
      broken_.push_back({record, first, length});
    }
    return 0;
  }
  whole_ += is_sure ? 1 : 0;
  for (const Place place : walk.places) {
    std::array<isam::Byte, kNamedSize> entry{};
    common::stlong(static_cast<std::int32_t>(place >> 8), entry.data());
    entry[kNamedSize - 1] = static_cast<isam::Byte>(place & 0xFF);
    if (named_.add(entry.data()) != 0) return -1;
  }
  return 0;
}

bool OldParts::is_foreign() const {
  constexpr std::int64_t kSome = 4;
  return astray_ >= kSome && astray_ > whole_;
}

void OldParts::take_unused(std::int32_t node, isam::Bytes page, const std::vector<bool>& named) {
  const Rpage view{page, index_.stored_size()};
  for (int slot = 0; slot < view.slots_in_page(); ++slot) {
    const Rpage::Slot entry = view.slot(slot);
    if (named[static_cast<std::size_t>(slot)] || entry.length <= 0 || !view.readable(entry)) {
      continue;
    }
    const Place next = view.is_big() ? place_of(view.named_piece()) : 0;
    unused_[static_cast<Place>(node) << 8 | static_cast<Place>(slot)] = {entry.length, next};
  }
  if (unused_.size() <= kMost) return;
  is_too_much_ = true;
  unused_.clear();
}

int OldParts::settle() {
  if (named_.finish() != 0) return -1;
  if (is_foreign()) return 0;
  const isam::Byte* next = named_.next();
  index_.each_page([&](std::int32_t node, isam::Bytes page) {
    std::vector<bool> named(isam::rpage::kMaxSlots + 1);
    for (; next != nullptr && common::ldlong(next) <= node; next = named_.next()) {
      if (common::ldlong(next) < node) continue;
      const std::size_t slot = next[kNamedSize - 1];
      shared_ += named[slot] ? 1 : 0;
      named[slot] = true;
    }
    take_unused(node, page, named);
    return !is_too_much_;
  });
  if (named_.error() != 0) {
    errno = named_.error();
    return -1;
  }
  if (!is_too_much_) mend();
  return 0;
}

// Unused chains that come to an end, by their first pieces, with their lengths.
std::map<OldParts::Place, int> OldParts::heads(const std::set<Place>& others) const {
  std::set<Place> behind;
  for (const auto& [place, piece] : unused_) behind.insert(piece.next);
  std::map<Place, int> heads;
  for (const auto& [first, piece] : unused_) {
    if (behind.contains(first) || others.contains(first)) continue;
    int length = 0;
    auto at = unused_.find(first);
    for (; at != unused_.end() && length <= greatest_; at = unused_.find(at->second.next)) {
      length += at->second.length;
      if (at->second.next == 0) break;
    }
    if (at != unused_.end() && length <= greatest_) heads[first] = length;
  }
  return heads;
}

// Of the first pieces of a walk.
bool OldParts::is_unused(const Walk& walk, std::size_t pieces) const {
  return std::ranges::all_of(walk.places.begin(),
                             walk.places.begin() + static_cast<std::ptrdiff_t>(pieces),
                             [&](const Place place) { return unused_.contains(place); });
}

void OldParts::claim(const Walk& walk, std::size_t pieces) {
  for (std::size_t i = 0; i < pieces; ++i) unused_.erase(walk.places[i]);
}

void OldParts::mend() {
  mend_by_length();
  mend_lengths();
  for (const Broken& broken : broken_) {  // what is left of them is theirs
    if (mended_.contains(broken.record) || lengths_mended_.contains(broken.record)) continue;
    const Walk walk = follow(broken.first, broken.length);
    const std::size_t own = own_pieces(walk);
    if (is_unused(walk, own)) claim(walk, own);
  }
}

// A piece that is too long is another record's.
std::size_t OldParts::own_pieces(const Walk& walk) {
  return walk.places.size() - (walk.has_surplus ? 1 : 0);
}

// Joins chains to what is missing, where both have a length of their own.
void OldParts::mend_by_length() {
  std::multimap<int, const Broken*> missing;  // by length
  std::set<Place> begins;
  for (const Broken& broken : broken_) {
    if (has_odd_length(broken.length, broken.first)) continue;
    const Walk walk = follow(broken.first, broken.length);
    if (walk.leads_to_gone) continue;
    const std::size_t own = own_pieces(walk);
    const bool is_own = is_unused(walk, own);
    if (is_own)
      begins.insert(walk.places.begin(), walk.places.begin() + static_cast<std::ptrdiff_t>(own));
    const int left = walk.has_surplus ? walk.last_left : walk.left;
    missing.emplace(is_own ? left : broken.length, &broken);
  }
  std::multimap<int, Place> found;
  for (const auto& [place, length] : heads(begins)) found.emplace(length, place);
  for (const auto& [length, broken] : missing) {
    const Place* const chain = only_one(found, length);
    if (chain == nullptr || only_one(missing, length) == nullptr) continue;
    const Place from = *chain;
    mended_[broken->record] = {length, from};
    const Walk begin = follow(broken->first, broken->length, length);
    if (length < broken->length) claim(begin, begin.places.size());
    const Walk end = follow(from, length);
    claim(end, end.places.size());
  }
}

// Where a reference leads to a whole chain that is nobody else's, the length is what is damaged;
// but it may also have been made shorter, and keep its pieces for now.
void OldParts::mend_lengths() {
  for (const Broken& broken : broken_) {
    if (mended_.contains(broken.record)) continue;
    const auto walk = follow_to_end(broken.first);
    if (!walk || !is_unused(*walk, walk->places.size())) continue;
    claim(*walk, walk->places.size());
    const bool is_shorter = std::cmp_less(broken.length, walk->bytes.size());
    if (!is_shorter || broken.length == 0) lengths_mended_.insert(broken.record);
  }
}

OldParts::Part OldParts::part_of(std::int64_t record, ConstBytes trailer) {
  const Place first = place_of(reference_of(trailer));
  const int length = length_of(trailer);
  if (length == 0 && first == 0) return {};
  if (is_foreign() || index_.stored_size() == 0) return {.how = How::kBroken};
  if (lengths_mended_.contains(record)) {
    auto walk = follow_to_end(first);
    if (walk) return {.how = How::kFoundAgain, .bytes = std::move(walk->bytes)};
  }
  if (has_odd_length(length, first)) return {.how = How::kBroken};
  const auto mended = mended_.find(record);
  if (mended == mended_.end()) {
    Walk walk = follow(first, length);
    const How how = walk.has_surplus ? How::kFoundAgain : How::kWhole;
    return {.how = walk.left > 0 ? How::kBroken : how, .bytes = std::move(walk.bytes)};
  }
  const int left = mended->second.left;
  Part part{.how = How::kFoundAgain};
  if (left < length) part.bytes = follow(first, length, left).bytes;
  part.bytes += follow(mended->second.from, left).bytes;
  return part;
}

void OldParts::each_unused(const std::function<void(std::string_view bytes)>& take) {
  std::map<Place, Piece> left = std::move(unused_);
  unused_.clear();
  std::set<Place> behind;
  for (const auto& [place, piece] : left) behind.insert(piece.next);
  const auto take_chain = [&](Place first) {
    std::string all;
    for (auto at = left.find(first); at != left.end();) {
      ConstBytes bytes;
      const Piece piece = at->second;
      if (piece_at(at->first, piece.next != 0 ? chunk_ + 1 : piece.length, bytes)) {
        all += as_text(bytes);
      }
      left.erase(at);
      at = piece.next == 0 ? left.end() : left.find(piece.next);
    }
    if (!all.empty()) take(all);
  };
  std::vector<Place> firsts;
  for (const auto& [place, piece] : left) {
    if (!behind.contains(place)) firsts.push_back(place);
  }
  for (const Place first : firsts) take_chain(first);
  while (!left.empty()) take_chain(left.begin()->first);  // pieces in a ring
}

}  // namespace zentra
