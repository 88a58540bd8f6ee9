#include "zentra/repair/pagemend.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <utility>

#include "isam/base/errors.h"
#include "isam/records/datafile.h"
#include "isam/records/varlen.h"
#include "zentra/pair/trailer.h"

namespace zentra {
namespace {

// What records take of a page.
struct Slots {
  // How many bytes of each slot belong to a record; 0: no record names it.
  std::array<std::uint16_t, isam::rpage::kMaxSlots + 1> lengths{};
  std::int32_t continuation = 0;  // the piece behind that of a big page
};
// Pages out of order.
using Pages = std::map<std::int32_t, Slots>;

bool is_in_order(const isam::PageHold& page) {
  const isam::Rpage view{page};
  const isam::RpageGeometry& geometry = view.geometry();
  if (page.node_type() != isam::kStoragePage || !view.has_magic() || view.slot_count() == 0 ||
      view.slot_count() > geometry.slots_that_fit() || !view.movable()) {
    return false;
  }
  int room = geometry.capacity - view.slot_count() * isam::rpage::kSlotSize;
  for (int i = 0; i < view.slot_count(); ++i) {
    if (!view.readable(view.slot(i))) return false;
    room -= view.slot(i).length;
  }
  return room >= 0 && room == view.free_bytes();
}

Pages find_pages(const checker::Check& check) {
  Pages pages;
  for (std::int32_t node = check.rpgmap.next_set(1); node != 0;
       node = node == INT32_MAX ? 0 : check.rpgmap.next_set(node + 1)) {
    const isam::PageHold page = isam::bfread(node);
    if (page && !is_in_order(page)) pages.try_emplace(node);
  }
  return pages;
}

void note_named_slots(const checker::Check& check, Pages& pages) {
  for (std::int32_t record = check.datmap.next_set(1); record != 0;
       record = record == INT32_MAX ? 0 : check.datmap.next_set(record + 1)) {
    isam::Byte trailer[isam::kVariableTrailer] = {};
    if (isam::datainfo(record, trailer) != isam::kVariableTrailer) continue;
    isam::PieceChain chain{reference_of(trailer)};
    int left = common::ldshort(trailer + isam::kTrailerLength);
    while (chain.pointer() != 0) {
      const isam::PageHold page = chain.read();
      if (!page) break;
      const int length = isam::Rpage{page}.slot(chain.slot()).length;
      // Pieces beyond the record's length are its own, too.
      const int own = left > 0 ? std::min(left, length) : length;
      left -= own;
      const int slot = chain.slot();
      const auto at = pages.find(page.node());
      if (at != pages.end()) {
        at->second.lengths[static_cast<std::size_t>(slot)] = static_cast<std::uint16_t>(own);
      }
      if (!chain.rprwalk()) break;
      if (at != pages.end() && chain.pointer() != 0) at->second.continuation = chain.pointer();
    }
  }
}

// Lays the page out anew with the pieces that are named. When they do not fit, it stays.
void put_in_order(isam::PageHold page, const Slots& named) {
  const isam::Rpage view{page};
  const isam::RpageGeometry& geometry = view.geometry();
  std::array<isam::Byte, isam::kMaxNodeSize> fresh{};
  isam::Byte* const to = fresh.data();
  const isam::Byte* const from = page.data();
  std::memcpy(to, from, isam::rpage::kData);  // the head, of which counts are set below
  int end = isam::rpage::kData;
  int count = 0;
  for (int i = 0; i < view.slots_in_page(); ++i) {
    const isam::Rpage::Slot slot = view.slot(i);
    const int length = named.lengths[static_cast<std::size_t>(i)];
    if (length == 0 || !view.readable(slot)) continue;
    const int entry = geometry.first_slot - i * isam::rpage::kSlotSize;
    if (end + length > entry) return;
    std::memcpy(to + end, from + slot.offset, static_cast<std::size_t>(length));
    common::stword(static_cast<std::uint32_t>(length), to + entry);
    common::stword(static_cast<std::uint32_t>(end), to + entry + 2);
    end += length;
    count = i + 1;
  }
  const int room = geometry.capacity - count * isam::rpage::kSlotSize - (end - isam::rpage::kData);
  if (count == 0 || room < 0) return;
  common::stword(static_cast<std::uint32_t>(room), to + isam::rpage::kFree);
  common::stword(static_cast<std::uint32_t>(end), to + isam::rpage::kDataEnd);
  to[isam::rpage::kSlotCount] = static_cast<isam::Byte>(count);
  // Only a page that a chain goes on from is a big one, whatever else its counts make of it.
  isam::Rpage{isam::Bytes{fresh}}.set_named_piece(named.continuation);
  const auto size = static_cast<std::size_t>(isam::node_type_offset(isam::filep->geometry.idxsize));
  std::memcpy(page.data() + isam::rpage::kMagicOffset, to + isam::rpage::kMagicOffset,
              size - isam::rpage::kMagicOffset);
  page.set_frame(0, isam::kStoragePage, isam::kStorageLevel);
  page.modified();
}

}  // namespace

void mend_pages(const checker::Check& check) {
  Pages pages = find_pages(check);
  if (!pages.empty()) note_named_slots(check, pages);
  for (const auto& [node, named] : pages) {
    isam::PageHold page = isam::bfread(node);
    if (page) put_in_order(std::move(page), named);
  }
  isam::clear_errors();  // what cannot be read was found before
}

}  // namespace zentra
