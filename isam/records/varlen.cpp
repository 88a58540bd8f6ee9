#include "isam/records/varlen.h"

#include <algorithm>

#include "isam/base/errors.h"
#include "isam/records/freelists.h"

namespace isam {

Rpage::Slot Rpage::slot(int number) const {
  const Byte* entry =
      &bytes_[static_cast<std::size_t>(geometry_.first_slot - number * rpage::kSlotSize)];
  return {common::ldshort(entry), common::ldshort(entry + 2)};
}

bool Rpage::readable(const Slot& slot) const {
  return slot.length == 0 || (slot.length > 0 && slot.offset >= rpage::kData &&
                              slot.offset + slot.length <= static_cast<int>(bytes_.size()));
}

bool Rpage::has_empty_slot() const {
  for (int i = 0; i < slots_in_page(); ++i) {
    if (slot(i).length == 0) return true;
  }
  return false;
}

bool Rpage::is_big() const {
  return slot_count() == 1 && slot(0).length == geometry_.chunk && says_it_goes_on();
}

bool Rpage::holds_data() const {
  for (int i = 0; i < slots_in_page(); ++i) {
    if (slot(i).length != 0) return true;
  }
  return false;
}

std::int32_t Rpage::named_piece() const {
  return common::ldlong(bytes_.data() + rpage::kContinuation);
}

std::int32_t Rpage::rpgetext() const {
  if (!is_big()) return 0;
  const std::int32_t pointer = named_piece();
  return pointer == 0 || pointer == -1 ? failed_unless_set(kCorrupted) : pointer;
}

int rpage_class_of(const Rpage& page) {
  const RpageGeometry& geometry = page.geometry();
  const int free_bytes = page.free_bytes();
  const int slots = page.slot_count();
  if (slots == 0 || free_bytes == geometry.capacity - rpage::kSlotSize * slots) {
    return rpage::kEmptyClass;
  }
  if (slots >= rpage::kMaxSlots && !page.has_empty_slot()) return 0;
  return free_bytes < 1 ? 0 : (free_bytes - 1) / geometry.class_width;
}

PageHold rpbfread(std::int32_t node) {
  PageHold page = bfread(node);
  if (!page || Rpage{page}.has_magic()) return page;
  failed_unless_set(kCorrupted);
  return {};
}

PageHold rppgread(std::int32_t pointer) {
  PageHold page = rpbfread(rpage::pointer_node(pointer));
  if (!page) return page;
  const Rpage view{page};
  const int slot = rpage::pointer_slot(pointer);
  if (slot < view.slots_in_page() && view.readable(view.slot(slot))) return page;
  failed_unless_set(kCorrupted);
  return {};
}

int greatest_chain() {
  const int chunk = RpageGeometry{filep->geometry.idxsize}.chunk;
  const int greatest = filep->geometry.maxreclen - filep->geometry.reclen;
  return std::max(1, (greatest + chunk - 1) / chunk);
}

PageHold PieceChain::read() {
  if (limit_.exceeded()) {
    failed_unless_set(kCorrupted);
    return {};
  }
  PageHold page = rppgread(pointer_);
  if (page) next_ = Rpage{page}.rpgetext();
  return page;
}

int rprread(std::int32_t pointer, Bytes destination) {
  std::size_t copied = 0;
  PieceChain chain{pointer};
  while (chain.pointer() != 0 && copied < destination.size()) {
    const PageHold page = chain.read();
    if (!page) return -1;
    const Rpage::Slot slot = Rpage{page}.slot(chain.slot());
    const std::size_t count =
        std::min(static_cast<std::size_t>(slot.length), destination.size() - copied);
    if (count > 0) {
      std::memcpy(destination.data() + copied, page.data() + slot.offset, count);
    }
    copied += count;
    if (!chain.rprwalk()) return -1;
  }
  return static_cast<int>(copied);
}

}  // namespace isam
