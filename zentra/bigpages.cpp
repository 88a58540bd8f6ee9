#include "zentra/bigpages.h"

#include <set>

#include "isam/base/errors.h"
#include "isam/records/varlen.h"

namespace zentra {
namespace {

using isam::Rpage;

constexpr int kEnoughSigns = 2;  // of three

bool has_most_signs(const Rpage& view) {
  const int goes_on = view.says_it_goes_on() ? 1 : 0;
  const int has_one_slot = view.slot_count() == 1 ? 1 : 0;
  const int is_full = view.slot(0).length == view.geometry().chunk ? 1 : 0;
  return goes_on + has_one_slot + is_full >= kEnoughSigns;
}

bool is_sound_big(const Rpage& view) {
  return view.is_big() && view.slot(0).offset == isam::rpage::kData;
}

// `next`: the piece that it goes on with, 0 for none.
void fill(const isam::PageHold& page, std::int32_t next) {
  isam::Byte* const to = page.data();
  const isam::RpageGeometry geometry{isam::filep->geometry.idxsize};
  const auto set_word = [to](int offset, int value) {
    common::stword(static_cast<std::uint32_t>(value), to + offset);
  };
  set_word(isam::rpage::kFree, geometry.capacity - geometry.chunk - isam::rpage::kSlotSize);
  set_word(isam::rpage::kDataEnd, isam::rpage::kData + geometry.chunk);
  Rpage{page}.set_named_piece(next);
  to[isam::rpage::kSlotCount] = 1;
  set_word(geometry.first_slot, geometry.chunk);
  set_word(geometry.first_slot + 2, isam::rpage::kData);
}

// Walks through a variable part of this length: whether all of it is there when `pages`, to which
// what it finds is added, are mended.
bool can_be_mended(std::int32_t pointer, int length, BigPages& pages) {
  const int chunk = isam::RpageGeometry{isam::filep->geometry.idxsize}.chunk;
  isam::StepLimit limit{isam::greatest_chain()};
  std::set<std::int32_t> met;
  for (int left = length; left > 0;) {
    if (limit.exceeded()) return false;
    const isam::PageHold page = isam::rpbfread(isam::rpage::pointer_node(pointer));
    if (!page || !met.insert(page.node()).second) return false;
    const Rpage view{page};
    const int slot = isam::rpage::pointer_slot(pointer);
    pointer = view.named_piece();
    if (left < chunk || (left == chunk && !view.is_big())) {
      if (slot >= view.slots_in_page()) return false;
      const Rpage::Slot last = view.slot(slot);
      return !view.is_big() && view.readable(last) && last.length >= left;
    }
    if (slot != 0 || !has_most_signs(view)) return false;
    left -= chunk;
    if (left == 0) pointer = 0;
    if (left == 0 || !is_sound_big(view)) pages[page.node()] = pointer;
  }
  return length > 0;
}

bool can_be_mended(std::int32_t record, BigPages& pages) {
  isam::Byte trailer[isam::kVariableTrailer] = {};
  if (!read_slot(record, {}, trailer)) return false;
  const int length = common::ldshort(trailer + isam::kTrailerLength);
  BigPages its;
  const bool can = can_be_mended(common::ldlong(trailer + isam::kTrailerReference), length, its);
  if (!can || its.empty()) return false;
  pages.merge(its);
  return true;
}

}  // namespace

std::int64_t spare_mendable(BadRecords& bad, BigPages& pages) {
  const isam::KeepError keep;
  const std::size_t spared = std::erase_if(bad, [&](const BadRecord& one) {
    return one.why == Why::kUnreadable && can_be_mended(one.record, pages);
  });
  return static_cast<std::int64_t>(spared);
}

void mend_big_pages(const BigPages& pages) {
  for (const auto& [node, next] : pages) {
    isam::PageHold page = isam::bfread(node);
    if (!page) continue;
    fill(page, next);
    page.set_frame(0, isam::kStoragePage, isam::kStorageLevel);
    page.modified();
  }
  isam::clear_errors();  // the check of the copy finds what could not be mended
}

}  // namespace zentra
