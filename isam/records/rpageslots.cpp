// rpageslots: changes of the slots of one storage page (isam/records/varlen reads them).
//
// Data are packed from the header up, the slot table grows from the page's end down. Before
// anything moves, every slot is found to lie between the header and the data end.
#include <algorithm>
#include <cstring>

#include "isam/base/errors.h"
#include "isam/records/varlen.h"

namespace isam {

void Rpage::set_slot(int number, const Slot& slot) {
  const int entry = geometry_.first_slot - number * rpage::kSlotSize;
  set_word(entry, slot.length);
  set_word(entry + 2, slot.offset);
}

bool Rpage::movable() const {
  const int slots = slot_count();
  const int end = data_end();
  if (slots > geometry_.slots_that_fit() || end < rpage::kData || end > table_start(slots)) {
    return false;
  }
  for (int i = 0; i < slots; ++i) {
    const Slot at = slot(i);
    if (at.length < 0) return false;
    if (at.length > 0 && (at.offset < rpage::kData || at.offset + at.length > end)) return false;
  }
  return true;
}

void Rpage::rpinit() {
  set_word(rpage::kMagicOffset, rpage::kMagic);
  set_word(rpage::kFree, geometry_.capacity);
  set_word(rpage::kDataEnd, rpage::kData);
  bytes_[rpage::kClass] = rpage::kNotFiled;
}

int Rpage::rpslalloc(int size) {
  if (!movable()) return failed_unless_set(kCorrupted);
  const int slots = slot_count();
  int number = 0;
  while (number < slots && slot(number).length != 0) ++number;
  const bool fresh = number == slots;
  const int cost = size + (fresh ? rpage::kSlotSize : 0);
  const int table = table_start(fresh ? slots + 1 : slots);
  if (number >= rpage::kMaxSlots || cost > free_bytes() || data_end() + size > table) {
    return failed_unless_set(kCorrupted);
  }
  const int end = data_end();
  set_slot(number, {size, end});
  set_word(rpage::kDataEnd, end + size);
  set_word(rpage::kFree, free_bytes() - cost);
  if (fresh) bytes_[rpage::kSlotCount] = static_cast<Byte>(slots + 1);
  return number;
}

// What lies behind the gap moves down over it, with the slots that are there.
void Rpage::close_gap(int start, int size) {
  if (size == 0) return;
  const int behind = start + size;
  const int end = data_end();
  Byte* const base = bytes_.data();
  std::memmove(base + start, base + behind, static_cast<std::size_t>(end - behind));
  std::memset(base + end - size, 0, static_cast<std::size_t>(size));
  for (int i = 0; i < slot_count(); ++i) {
    const Slot at = slot(i);
    if (at.length > 0 && at.offset >= behind) set_slot(i, {at.length, at.offset - size});
  }
  set_word(rpage::kDataEnd, end - size);
}

int Rpage::rpslchange(int number, int length) {
  if (number >= slot_count() || !movable()) return failed_unless_set(kCorrupted);
  const Slot old = slot(number);
  const int growth = length - old.length;
  if (growth == 0) return 0;
  if (growth > free_bytes() || data_end() + growth > table_start(slot_count())) {
    return failed_unless_set(kCorrupted);
  }
  if (growth < 0) {
    close_gap(old.offset + length, -growth);
    set_slot(number, {length, length == 0 ? 0 : old.offset});
  } else {  // its place goes, and it gets another one behind all data
    close_gap(old.offset, old.length);
    set_slot(number, {length, data_end()});
    set_word(rpage::kDataEnd, data_end() + length);
  }
  set_word(rpage::kFree, free_bytes() - growth);
  return 0;
}

int Rpage::rpslfree(int number) {
  if (rpslchange(number, 0) != 0) return -1;
  int slots = slot_count();
  int freed = free_bytes();
  while (slots > 0 && slot(slots - 1).length == 0) {
    set_slot(--slots, {0, 0});
    freed += rpage::kSlotSize;
  }
  bytes_[rpage::kSlotCount] = static_cast<Byte>(slots);
  set_word(rpage::kFree, freed);
  return 0;
}

int Rpage::rpsload(int number, ConstBytes source) {
  const Slot at = number < slots_in_page() ? slot(number) : Slot{};
  const auto length = static_cast<std::size_t>(std::max(at.length, 0));
  if (!readable(at) || length < source.size()) return failed_unless_set(kCorrupted);
  Byte* const to = bytes_.data() + at.offset;
  if (!source.empty()) std::memcpy(to, source.data(), source.size());
  std::memset(to + source.size(), 0, length - source.size());
  return 0;
}

int Rpage::rpsetext(std::int32_t pointer) {
  if (slot_count() != 1 || slot(0).length != geometry_.chunk) return failed_unless_set(kCorrupted);
  common::stlong(pointer, bytes_.data() + rpage::kContinuation);
  bytes_[rpage::kFlags] |= rpage::kContinues;
  return 0;
}

void Rpage::set_named_piece(std::int32_t pointer) {
  common::stlong(pointer, bytes_.data() + rpage::kContinuation);
  bytes_[rpage::kFlags] = pointer != 0 ? rpage::kContinues : Byte{0};
}

int Rpage::rpmksmall() {
  if (!is_big()) return failed_unless_set(kCorrupted);
  common::stlong(0, bytes_.data() + rpage::kContinuation);
  bytes_[rpage::kFlags] = static_cast<Byte>(bytes_[rpage::kFlags] & ~rpage::kContinues);
  return 0;
}

}  // namespace isam
