// varwrite: storing, replacing and releasing variable parts.
#include <algorithm>
#include <utility>

#include "isam/base/errors.h"
#include "isam/records/freelists.h"
#include "isam/records/varlen.h"

namespace isam {
namespace {

constexpr std::int32_t kMaxPageNode = 0x00FFFFFF;  // the greatest that a record pointer can name

std::int32_t pointer_of(int slot, std::int32_t node) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(slot) << 24 |
                                   static_cast<std::uint32_t>(node));
}

// A variable part, not empty, in pieces: `big` of the chunk size, then one of `rest` bytes, 1 to
// the chunk size.
struct Pieces {
  explicit Pieces(ConstBytes source)
      : bytes(source),
        chunk(static_cast<std::size_t>(RpageGeometry{filep->geometry.idxsize}.chunk)) {
    big = (source.size() - 1) / chunk;
    rest = source.size() - big * chunk;
  }

  [[nodiscard]] ConstBytes big_piece(std::size_t number) const {
    return bytes.subspan(number * chunk, chunk);
  }
  [[nodiscard]] ConstBytes small_piece() const { return bytes.last(rest); }

  ConstBytes bytes;
  std::size_t chunk;
  std::size_t big;
  std::size_t rest;
};

PageHold fresh_page() {
  const std::int32_t node = allocrec(FreeList::kNodes);
  if (node < 0) return {};
  if (node > kMaxPageNode) {
    freerec(node, FreeList::kNodes);
    failed(kCorrupted);
    return {};
  }
  PageHold page = bfgetclr(node);
  if (!page) return page;
  page.set_frame(0, kStoragePage, kStorageLevel);
  Rpage{page}.rpinit();
  return page;
}

// Empties a slot that was filled in vain: the page has stayed on the list of the room it had
// before.
void empty_again(std::int32_t node, int slot) {
  const KeepError keep;
  const PageHold page = rpbfread(node);
  if (!page || Rpage{page}.rpslfree(slot) != 0) return;
  page.modified();
}

// Stores a piece in a slot of its own, going on at `continuation` unless that is 0: its pointer, or
// -1.
std::int32_t store_piece(ConstBytes piece, std::int32_t continuation) {
  PageHold page = rpgetspc(static_cast<int>(piece.size()));
  if (!page) return -1;
  const std::int32_t node = page.node();
  Rpage view{page};
  const int slot = view.rpslalloc(static_cast<int>(piece.size()));
  bool stored = slot >= 0 && view.rpsload(slot, piece) == 0;
  if (stored && continuation != 0) stored = view.rpsetext(continuation) == 0;
  const int filed = rpflmove(std::move(page));
  if (filed != 0 && slot >= 0) empty_again(node, slot);
  return stored && filed == 0 ? pointer_of(slot, node) : -1;
}

// Stores the big pieces from number `first` on, the last of them first, because each names the
// piece behind it. The last big piece names `pointer`. Gives the pointer of piece `first`,
// `pointer` itself when there is no such piece; -1 when `pointer` is -1 or a piece cannot be
// stored.
std::int32_t store_big_pieces(const Pieces& pieces, std::size_t first, std::int32_t pointer) {
  for (std::size_t i = pieces.big; i > first && pointer != -1; --i) {
    pointer = store_piece(pieces.big_piece(i - 1), pointer);
  }
  return pointer;
}

// Puts a small piece in place of the one at `pointer`: its pointer, which may be another one, or
// -1. With `release` the slot gets the length of the piece, and the piece goes to another slot or
// page where the old page is too full. Without it the part has become shorter: a longer slot stays
// as long, and a page that is too full can only be damaged.
std::int32_t rpupsmall(ConstBytes piece, PageHold page, std::int32_t pointer, bool release) {
  const auto length = static_cast<int>(piece.size());
  int slot = rpage::pointer_slot(pointer);
  const RpageBefore before{page};
  Rpage view{page};
  const int old_length = view.slot(slot).length;
  int result = 0;
  if (view.free_bytes() + old_length < length) {
    if (!release) return failed_unless_set(kCorrupted);
    page.gives_up();
    if (view.rpslfree(slot) != 0) return -1;
    // Entries that were empty have gone with the slot's, so the page may have room after all.
    if (view.free_bytes() < length + rpage::kSlotSize) {
      return rpflmove(std::move(page), &before) == 0 ? store_piece(piece, 0) : -1;
    }
    slot = view.rpslalloc(length);
    if (slot < 0) result = -1;
  } else if (length > old_length || (release && length < old_length)) {
    result = view.rpslchange(slot, length);
  }
  if (result == 0) result = view.rpsload(slot, piece);
  const std::int32_t node = page.node();
  const int filed = rpflmove(std::move(page), &before);
  return result == 0 && filed == 0 ? pointer_of(slot, node) : -1;
}

// Frees the slot of the piece that the walk has read, files its page and goes to the next: 0 or -1.
int free_piece(PieceChain& walk, PageHold page) {
  const int slot = walk.slot();
  page.gives_up();
  const RpageBefore before{page};
  if (!walk.rprwalk() || Rpage{page}.rpslfree(slot) != 0) return -1;
  return rpflmove(std::move(page), &before);
}

// Overwrites what the one slot of a big page holds, all zero behind a shorter piece: 0 or -1.
int rpupbig(ConstBytes piece, const PageHold& page) {
  page.modified();
  return Rpage{page}.rpsload(0, piece);
}

// Makes the big page of the piece `from` go on at `pointer`: 0 or -1.
int link_to(std::int32_t from, std::int32_t pointer) {
  const PageHold page = rppgread(from);
  if (!page) return -1;
  page.modified();
  return Rpage{page}.rpsetext(pointer);
}

// Replaces the pieces of one chain by those of another variable part. Big pieces go over big ones
// as long as both have one. Then the new part has only its small piece left, or the old chain has
// only its last page left.
class Update {
 public:
  Update(std::int32_t pointer, ConstBytes source, bool release)
      : first_(pointer), walk_(pointer), pieces_(source), release_(release) {}

  std::int32_t run() {
    PageHold page = walk_.read();
    if (!page) return -1;
    for (; walk_.goes_on() && done_ < pieces_.big; ++done_) {
      if (rpupbig(pieces_.big_piece(done_), page) != 0) return -1;
      page.release();
      previous_ = walk_.pointer();
      if (walk_.rprwalk()) page = walk_.read();
      if (!page) return -1;
    }
    if (walk_.goes_on() && !release_) return end_here(std::move(page));
    return drop_rest(std::move(page));
  }

 private:
  // Where the new part ends before the old chain does, the chain's big pages from `page` on are
  // freed. Its last page takes the small piece.
  std::int32_t drop_rest(PageHold page) {
    while (walk_.goes_on()) {
      if (free_piece(walk_, std::move(page)) != 0) return -1;
      page = walk_.read();
      if (!page) return -1;
    }
    return walk_.is_last() ? put_rest(std::move(page)) : -1;
  }

  // The same without releasing storage: `page` takes the small piece, and the pages behind it stay
  // in the chain, filled with zero bytes.
  std::int32_t end_here(PageHold page) {
    if (rpupbig(pieces_.small_piece(), page) != 0) return -1;
    page.release();
    return walk_.rprwalk() && rprclear(walk_.pointer()) == 0 ? first_ : -1;
  }

  // `page` is the last of the old chain. Its slot takes the small piece; big pieces that are left
  // are stored anew between the last one overwritten and this page.
  std::int32_t put_rest(PageHold page) {
    std::int32_t pointer =
        rpupsmall(pieces_.small_piece(), std::move(page), walk_.pointer(), release_);
    if (pointer != -1) pointer = store_big_pieces(pieces_, done_, pointer);
    if (pointer == -1) return -1;
    if (previous_ == 0) return pointer;
    return link_to(previous_, pointer) == 0 ? first_ : -1;
  }

  std::int32_t first_;
  std::int32_t previous_ = 0;  // the last big piece that was overwritten
  PieceChain walk_;
  Pieces pieces_;
  std::size_t done_ = 0;
  bool release_;
};

}  // namespace

PageHold rpgetspc(int size) {
  const RpageGeometry geometry{filep->geometry.idxsize};
  StepLimit pages{dictp->d_nextnode()};  // no list has more
  // From the lowest class on of which every page has room. Only the head of each list is tried.
  for (int at = size / geometry.class_width + 1; at < kRpageClasses;) {
    const std::int32_t head = dictp->d_varfree(at);
    if (head == 0) {
      ++at;
      continue;
    }
    PageHold page = rpbfread(head);
    if (!page) return page;
    const Rpage view{page};
    if (view.free_bytes() < size) {
      // Its class is stale.
      if (rpflmove(std::move(page)) != 0) return {};
      if (dictp->d_varfree(at) != head && !pages.exceeded()) continue;
      failed(kCorrupted);
      return {};
    }
    const bool new_slot =
        view.slot_count() < rpage::kMaxSlots && view.free_bytes() >= size + rpage::kSlotSize;
    if (new_slot || view.has_empty_slot()) return page;
    ++at;
  }
  return fresh_page();
}

std::int32_t rprwrite(ConstBytes source) {
  if (source.empty()) return 0;
  const Pieces pieces{source};
  const std::int32_t pointer = store_piece(pieces.small_piece(), 0);
  return pointer == -1 ? -1 : store_big_pieces(pieces, 0, pointer);
}

std::int32_t rprupdate(std::int32_t pointer, ConstBytes source, bool release) {
  if (pointer == 0) return rprwrite(source);
  if (!source.empty()) return Update{pointer, source, release}.run();
  if (!release) return rprclear(pointer) == 0 ? pointer : -1;
  return rprfree(pointer);
}

int rprfree(std::int32_t pointer) {
  PieceChain walk{pointer};
  while (walk.pointer() != 0) {
    PageHold page = walk.read();
    if (!page || free_piece(walk, std::move(page)) != 0) return -1;
  }
  return 0;
}

int rprclear(std::int32_t pointer) {
  PieceChain walk{pointer};
  while (walk.pointer() != 0) {
    const PageHold page = walk.read();
    if (!page) return -1;
    page.modified();
    if (Rpage{page}.rpsload(walk.slot(), {}) != 0 || !walk.rprwalk()) return -1;
  }
  return 0;
}

int rprtrunc(std::int32_t pointer, int length) {
  if (length < 1) return rprfree(pointer);
  const int chunk = RpageGeometry{filep->geometry.idxsize}.chunk;
  PieceChain walk{pointer};
  for (; length > chunk; length -= chunk) {
    if (!walk.read() || walk.is_last() || !walk.rprwalk()) return failed_unless_set(kCorrupted);
  }
  PageHold page = walk.read();
  if (!page) return -1;
  Rpage view{page};
  const bool continues = walk.goes_on();
  const int slot = walk.slot();
  if (!walk.rprwalk()) return -1;
  if (view.slot(slot).length < length || !view.movable()) return failed_unless_set(kCorrupted);
  const RpageBefore before{page};
  if (continues && view.rpmksmall() != 0) return -1;
  if (view.rpslchange(slot, length) != 0 || rpflmove(std::move(page), &before) != 0) return -1;
  return rprfree(walk.pointer());
}

}  // namespace isam
