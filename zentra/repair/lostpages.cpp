#include "zentra/repair/lostpages.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "isam/base/errors.h"
#include "isam/records/varlen.h"
#include "zentra/pair/trailer.h"
#include "zentra/repair/pieces.h"

namespace zentra {
namespace {

using isam::Rpage;
namespace rpage = isam::rpage;

constexpr int kEnoughSigns = 3;  // of four

// One of the two marks of a page may be damaged; a node of a tree has neither.
bool may_be_page(const isam::PageHold& page) {
  return Rpage{page}.has_magic() || page.node_type() == isam::kStoragePage;
}

bool has_most_signs(const Rpage& view) {
  const int has_magic = view.has_magic() ? 1 : 0;
  const int goes_on = view.says_it_goes_on() ? 1 : 0;
  const int has_one_slot = view.slot_count() == 1 ? 1 : 0;
  const int is_full = view.slot(0).length == view.geometry().chunk ? 1 : 0;
  return has_magic + goes_on + has_one_slot + is_full >= kEnoughSigns;
}

bool is_sound_big(const Rpage& view) {
  return view.has_magic() && view.is_big() && view.slot(0).offset == rpage::kData;
}

// Where the pieces of the first `count` slots end, which stand side by side from the beginning of
// the data on; 0 when they do not.
int end_of_pieces(const Rpage& view, int count) {
  std::vector<std::pair<int, int>> pieces;  // offset and length
  for (int i = 0; i < count; ++i) {
    const Rpage::Slot slot = view.slot(i);
    if (!view.readable(slot)) return 0;
    if (slot.length > 0) pieces.emplace_back(slot.offset, slot.length);
  }
  std::ranges::sort(pieces);
  int end = rpage::kData;
  for (const auto& [offset, length] : pieces) {
    if (offset != end) return 0;
    end += length;
  }
  const int room = view.geometry().capacity - count * rpage::kSlotSize - (end - rpage::kData);
  return room >= 0 ? end : 0;
}

// How many slots a page has that pieces share; 0 when what its head counts agrees with no number of
// slots. Its own number needs one witness more, any other both.
int slots_of_shared(const Rpage& view) {
  const auto is_right = [&](int count, int least) {
    const int end = end_of_pieces(view, count);
    if (end <= rpage::kData) return false;
    const int room = view.geometry().capacity - count * rpage::kSlotSize - (end - rpage::kData);
    return (view.free_bytes() == room ? 1 : 0) + (view.data_end() == end ? 1 : 0) >= least;
  };
  const int most = view.geometry().slots_that_fit();
  const int own = view.slot_count();
  if (own >= 1 && own <= most && is_right(own, 1)) return own;
  for (int count = 1; count <= std::min(most, rpage::kMaxSlots); ++count) {
    if (view.has_magic() && is_right(count, 2)) return count;
  }
  return 0;
}

// Whether the last piece of a record, of `length` bytes, stands in this slot when `pages`, to which
// the page is added, are mended.
bool ends_in(const isam::PageHold& page, int slot, int length, LostPages& pages) {
  const Rpage view{page};
  const bool is_lost = !view.has_magic() || slot >= view.slots_in_page();
  const int slots = is_lost ? slots_of_shared(view) : view.slots_in_page();
  if (slot >= slots || view.is_big()) return false;
  const Rpage::Slot last = view.slot(slot);
  if (!view.readable(last) || last.length < length) return false;
  if (is_lost) pages[page.node()] = {.slots = slots, .is_big = false, .next = 0};
  return true;
}

void fill(const isam::PageHold& page, const PageHead& head) {
  isam::Byte* const to = page.data();
  const isam::RpageGeometry geometry{isam::filep->geometry.idxsize};
  const auto set_word = [to](int offset, int value) {
    common::stword(static_cast<std::uint32_t>(value), to + offset);
  };
  Rpage view{page};
  set_word(rpage::kMagicOffset, rpage::kMagic);
  to[rpage::kSlotCount] = static_cast<isam::Byte>(head.slots);
  view.set_named_piece(head.next);
  if (head.is_big) {
    set_word(geometry.first_slot, geometry.chunk);
    set_word(geometry.first_slot + 2, rpage::kData);
  }
  const int end = head.is_big ? rpage::kData + geometry.chunk : end_of_pieces(view, head.slots);
  set_word(rpage::kFree, geometry.capacity - head.slots * rpage::kSlotSize - (end - rpage::kData));
  set_word(rpage::kDataEnd, end);
}

// What a record can be read by once some pages are mended.
struct Mended {
  LostPages pages{};
  std::set<std::int32_t> pieces{};  // of its variable part, by record pointer
};

// Walks through a variable part of this length: whether all of it is there when its pages are
// mended.
bool can_be_mended(std::int32_t pointer, int length, Mended& its) {
  const int chunk = isam::RpageGeometry{isam::filep->geometry.idxsize}.chunk;
  isam::StepLimit limit{isam::greatest_chain()};
  std::set<std::int32_t> met;
  for (int left = length; left > 0;) {
    if (limit.exceeded()) return false;
    const isam::PageHold page = isam::bfread(rpage::pointer_node(pointer));
    if (!page || !may_be_page(page) || !met.insert(page.node()).second) return false;
    its.pieces.insert(pointer);
    const Rpage view{page};
    const int slot = rpage::pointer_slot(pointer);
    pointer = view.named_piece();
    if (left < chunk || (left == chunk && !view.is_big())) {
      return ends_in(page, slot, left, its.pages);
    }
    if (slot != 0 || !has_most_signs(view)) return false;
    left -= chunk;
    if (left == 0) pointer = 0;
    if (left == 0 || !is_sound_big(view)) {
      its.pages[page.node()] = {.slots = 1, .is_big = true, .next = pointer};
    }
  }
  return length > 0;
}

std::optional<Mended> mended(const BadRecord& bad) {
  isam::Byte trailer[isam::kVariableTrailer] = {};
  if (bad.why != Why::kUnreadable || !read_slot(bad.record, {}, trailer)) return {};
  const int length = common::ldshort(trailer + isam::kTrailerLength);
  Mended its;
  const bool can = can_be_mended(reference_of(trailer), length, its);
  if (!can || its.pages.empty()) return {};
  return its;
}

bool is_one_taken(const Mended& its, const std::set<std::int32_t>& taken) {
  return std::ranges::any_of(its.pieces, [&](std::int32_t piece) { return taken.contains(piece); });
}

// Whether no other record takes one of its pages for something else.
bool agree(const Mended& its, const LostPages& pages) {
  return std::ranges::all_of(its.pages, [&](const auto& page) {
    const auto at = pages.find(page.first);
    return at == pages.end() || at->second == page.second;
  });
}

}  // namespace

void spare_mendable(const checker::Check& check, BadRecords& bad, LostPages& pages,
                    std::vector<std::int32_t>& spared) {
  const isam::KeepError keep;
  std::set<std::int32_t> pieces;
  for (const BadRecord& one : bad) {
    if (auto its = mended(one)) pieces.merge(its->pieces);
  }
  if (pieces.empty()) return;
  std::set<std::int32_t> taken = pieces_of_others(check, bad, pieces);
  std::erase_if(bad, [&](const BadRecord& one) {
    auto its = mended(one);
    if (!its || is_one_taken(*its, taken) || !agree(*its, pages)) return false;
    pages.merge(its->pages);
    taken.merge(its->pieces);
    spared.push_back(one.record);
    return true;
  });
}

void mend_lost_pages(const LostPages& pages) {
  for (const auto& [node, head] : pages) {
    isam::PageHold page = isam::bfread(node);
    if (!page) continue;
    fill(page, head);
    page.set_frame(0, isam::kStoragePage, isam::kStorageLevel);
    page.modified();
  }
  isam::clear_errors();  // the check of the copy finds what could not be mended
}

}  // namespace zentra
