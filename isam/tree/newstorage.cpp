#include "isam/tree/newstorage.h"

#include <algorithm>

#include "isam/base/errors.h"
#include "isam/records/varlen.h"

namespace isam {
namespace {

constexpr std::int32_t kMaxPageNode = 0x00FFFFFF;

Rpage view(NewNodes::Page& page) {
  return Rpage{Bytes{page.data(), static_cast<std::size_t>(node_size())}};
}

std::int32_t pointer_of(int slot, std::int32_t node) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(slot) << 24 |
                                   static_cast<std::uint32_t>(node));
}

}  // namespace

int NewStorage::begin(Page& page) {
  page.node = nodes_.take();
  if (page.node < 0) return -1;
  if (page.node > kMaxPageNode) return failed(kCorrupted);  // a record pointer cannot name it
  page.bytes = {};
  NewNodes::set_frame(page.bytes, 0, kStoragePage, kStorageLevel);
  view(page.bytes).rpinit();
  return 0;
}

// In a slot of its own: its pointer, or -1.
std::int32_t NewStorage::put(Page& page, ConstBytes piece) {
  Rpage to = view(page.bytes);
  const int slot = to.rpslalloc(static_cast<int>(piece.size()));
  if (slot < 0 || to.rpsload(slot, piece) != 0) return -1;
  return pointer_of(slot, page.node);
}

// Files a page that takes no more. In its list it stands before the one filed last.
int NewStorage::close(Page& page) {
  Rpage of = view(page.bytes);
  const int to = rpage_class_of(of);
  of.set_page_class(to);
  if (to < 1 || to >= rpage::kEmptyClass) return nodes_.write_page(page.node, page.bytes);
  const auto list = static_cast<std::size_t>(to);
  std::optional<Page>& last = last_filed_[list];
  RpageLinks{page.bytes.data()}.set_node(last ? last->node : dictp->d_varfree(to));
  if (last) {
    RpageLinks{last->bytes.data()}.set_previous(page.node);
    if (nodes_.write_page(last->node, last->bytes) != 0) return -1;
  } else {
    first_filed_[list] = page.node;
  }
  last = page;
  return 0;
}

std::int32_t NewStorage::store(ConstBytes part) {
  if (part.empty()) return 0;
  const auto chunk = static_cast<std::size_t>(RpageGeometry{filep->geometry.idxsize}.chunk);
  const std::size_t big = (part.size() - 1) / chunk;
  const ConstBytes small = part.subspan(big * chunk);
  if (open_) {
    const Rpage page = view(open_->bytes);
    const bool fits = page.slot_count() < rpage::kMaxSlots &&
                      page.free_bytes() >= static_cast<int>(small.size()) + rpage::kSlotSize;
    if (!fits && close(*open_) != 0) return -1;
    if (!fits) open_.reset();
  }
  if (!open_ && begin(open_.emplace(Page{})) != 0) return -1;
  std::int32_t pointer = put(*open_, small);
  // The last of the big pieces first, because each names the piece behind it.
  for (std::size_t i = big; i-- > 0 && pointer != -1;) {
    Page page;
    if (begin(page) != 0) return -1;
    const std::int32_t here = put(page, part.subspan(i * chunk, chunk));
    if (here == -1 || view(page.bytes).rpsetext(pointer) != 0 || close(page) != 0) return -1;
    pointer = here;
  }
  return pointer;
}

int NewStorage::finish(Dictionary& after) {
  if (open_ && close(*open_) != 0) return -1;
  open_.reset();
  for (int list = 1; list < rpage::kEmptyClass; ++list) {
    const auto at = static_cast<std::size_t>(list);
    const std::optional<Page>& last = last_filed_[at];
    if (!last) continue;
    if (nodes_.write_page(last->node, last->bytes) != 0) return -1;
    after.set_d_varfree(list, last->node);
    const std::int32_t old_head = dictp->d_varfree(list);
    if (old_head == 0) continue;
    const PageHold head = rpbfread(old_head);
    if (!head) return -1;
    Page behind{.node = old_head};
    common::copy_bytes(head.bytes(), behind.bytes.data());
    NewNodes::set_frame(behind.bytes, head.used(), head.node_type(), head.level());
    RpageLinks{behind.bytes.data()}.set_previous(first_filed_[at]);
    if (nodes_.write_page(old_head, behind.bytes) != 0) return -1;
  }
  return 0;
}

}  // namespace isam
