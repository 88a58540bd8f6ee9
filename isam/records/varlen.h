// varlen: the variable parts of records, in storage pages (rpages) of the index file.
//
// A variable part is cut into pieces, each in a slot of an rpage. All but the last piece fill a
// page of their own and name the next; the last, small piece shares its page with others'. Pages
// with room stand in four lists by the room they have.
//
//   0 used  2 magic  4 next  8 previous  12 free bytes  14 data end  16 continuation  20 flags
//   21 slots  22 class  23 data -> ...   <- slot table, 4 bytes a slot, from offset S - 6 down
//   (S: the node size minus one)
//
// Needs   the current file; pointers and pages may hold any bytes
// Keeps   V1 a slot counts only when its entry lies behind the header and its data in the page
//         V2 a chain has at most as many pieces as the greatest variable part needs
// Never   holds more than three pages
//
// Failures leave -1 (or no page) and iserrno 105 unless a deeper routine set a code: iserrno is 0
// before.
#pragma once

#include <array>
#include <cstdint>

#include "isam/pool/nodechain.h"

namespace isam {

// Sizes that follow from S.
struct RpageGeometry {
  explicit RpageGeometry(int stored_size)
      : capacity(rpage::capacity(stored_size)),
        first_slot(stored_size - 6),
        chunk(stored_size - 29),
        class_width((stored_size - 25) / 5 + 1) {}

  int capacity;     // free bytes of an empty page
  int first_slot;   // offset of slot entry 0; entry i lies 4 * i below it
  int chunk;        // the largest piece of one slot
  int class_width;  // free bytes that one class spans

  // Slot entries that lie behind the page's header.
  [[nodiscard]] int slots_that_fit() const {
    return (first_slot - rpage::kData) / rpage::kSlotSize + 1;
  }
};

// A checked view of a storage page.
class Rpage {
 public:
  struct Slot {
    int length;
    int offset;
  };

  explicit Rpage(const PageHold& page) : bytes_(page.bytes()), geometry_(filep->geometry.idxsize) {}

  // Of a page that is not in the pool.
  explicit Rpage(Bytes page) : Rpage(page, filep->geometry.idxsize) {}
  // Of a file that is not open.
  Rpage(Bytes page, int stored_size) : bytes_(page), geometry_(stored_size) {}

  [[nodiscard]] bool has_magic() const {
    return common::ldword(bytes_.data() + rpage::kMagicOffset) == rpage::kMagic;
  }
  [[nodiscard]] int free_bytes() const { return common::ldshort(bytes_.data() + rpage::kFree); }
  [[nodiscard]] int slot_count() const { return bytes_[rpage::kSlotCount]; }
  // Slots whose entries lie in the page, whatever the count says.
  [[nodiscard]] int slots_in_page() const {
    return std::min(slot_count(), geometry_.slots_that_fit());
  }
  [[nodiscard]] int page_class() const { return bytes_[rpage::kClass]; }
  [[nodiscard]] int data_end() const { return common::ldshort(bytes_.data() + rpage::kDataEnd); }
  // The entry of a slot, which must be one of slots_in_page().
  [[nodiscard]] Slot slot(int number) const;
  // Whether a slot's data can be read: of no length, or between the header and the page's end.
  [[nodiscard]] bool readable(const Slot& slot) const;
  [[nodiscard]] bool has_empty_slot() const;
  // Whether any slot has a length, whatever the counts say.
  [[nodiscard]] bool holds_data() const;
  // Whether every slot lies in the data, so that bytes of the page can be moved.
  [[nodiscard]] bool movable() const;
  [[nodiscard]] bool is_big() const;
  [[nodiscard]] const RpageGeometry& geometry() const { return geometry_; }

  // For repairs: the piece that the page's head names, and that it is to name (0: none), whatever
  // the page is.
  [[nodiscard]] std::int32_t named_piece() const;
  [[nodiscard]] bool says_it_goes_on() const {
    return (bytes_[rpage::kFlags] & rpage::kContinues) != 0;
  }
  void set_named_piece(std::int32_t pointer);

  void set_page_class(int value) { bytes_[rpage::kClass] = static_cast<Byte>(value); }

  // Changing slots (rpageslots). Each answers 0 (rpslalloc: the slot), or -1 with 105 and the page
  // as it was. None marks the page as modified: rpflmove() or the caller does.
  void rpinit();  // lays out a zeroed page
  [[nodiscard]] int rpslalloc(int size);
  // A slot that grows loses its data, one that shrinks keeps the first bytes.
  [[nodiscard]] int rpslchange(int slot, int length);
  // Frees a slot, and the empty entries at the end of the table with it.
  [[nodiscard]] int rpslfree(int slot);
  // Fills a slot, the rest of it with zero bytes.
  [[nodiscard]] int rpsload(int slot, ConstBytes source);
  // Makes the page a big one that goes on at `pointer`; makes a big page a small one.
  [[nodiscard]] int rpsetext(std::int32_t pointer);
  [[nodiscard]] int rpmksmall();

 private:
  friend class PieceChain;

  // The next piece of a big page, 0 for any other page, -1 with 105 when a big page names none.
  [[nodiscard]] std::int32_t rpgetext() const;
  [[nodiscard]] int table_start(int slots) const {
    return geometry_.first_slot + rpage::kSlotSize - slots * rpage::kSlotSize;
  }
  void close_gap(int start, int size);
  void set_word(int offset, int value) {
    common::stword(static_cast<std::uint32_t>(value), bytes_.data() + offset);
  }
  void set_slot(int number, const Slot& slot);

  Bytes bytes_;
  RpageGeometry geometry_;
};

// The neighbours of a storage page in the list of its class, 0 for none.
class RpageLinks {
 public:
  explicit RpageLinks(const PageHold& page) : RpageLinks(page.data()) {}
  explicit RpageLinks(Byte* page) : bytes_(page) {}

  // Whether the page names `node` as the one before it.
  [[nodiscard]] bool is_behind(std::int32_t node) const { return previous() == node; }

 private:
  template <typename Rule, typename Link>
  friend class NodeChain;
  friend class RpageLists;  // which links and unlinks pages
  friend class NewStorage;

  [[nodiscard]] std::int32_t node() const { return common::ldlong(bytes_ + rpage::kNextPage); }
  [[nodiscard]] std::int32_t previous() const {
    return common::ldlong(bytes_ + rpage::kPreviousPage);
  }
  void set_node(std::int32_t node) const { common::stlong(node, bytes_ + rpage::kNextPage); }
  void set_previous(std::int32_t node) const {
    common::stlong(node, bytes_ + rpage::kPreviousPage);
  }

  Byte* bytes_;
};

// The free-space class that a page's free bytes and slots call for: 0 to 4, or kEmptyClass.
[[nodiscard]] int rpage_class_of(const Rpage& page);

// A node with the page mark; empty with iserrno otherwise.
[[nodiscard]] PageHold rpbfread(std::int32_t node);
// The page of a record pointer, with its slot readable.
[[nodiscard]] PageHold rppgread(std::int32_t pointer);

// Copies up to destination.size() bytes of a variable part; the bytes copied, or -1.
[[nodiscard]] int rprread(std::int32_t pointer, Bytes destination);
// Pieces that the greatest variable part of the current file needs. At least one: where damaged
// lengths leave no room for any, a walk still reads the page that a record names.
[[nodiscard]] int greatest_chain();

// The one walk over the pieces of a variable part:
//
//   PieceChain chain{pointer};
//   while (chain.pointer() != 0) {
//     const PageHold page = chain.read();
//     if (!page) return -1;
//     ... look at slot chain.slot() of the page ...
//     if (!chain.rprwalk()) return -1;
//   }
class PieceChain {
 public:
  explicit PieceChain(std::int32_t pointer) : pointer_(pointer), limit_(greatest_chain()) {}

  // Of the piece that the walk stands at; 0 behind the last one.
  [[nodiscard]] std::int32_t pointer() const { return pointer_; }
  [[nodiscard]] int slot() const { return rpage::pointer_slot(pointer_); }
  // Whether there are more pieces than a variable part can have.
  [[nodiscard]] bool is_too_long() const { return limit_.is_reached() && pointer_ != 0; }
  // The page of the piece; empty when the chain is damaged.
  [[nodiscard]] PageHold read();
  // Of the piece that was read: whether it is the last, and whether it names another. Neither, with
  // 105, when it should name one and does not.
  [[nodiscard]] bool is_last() const { return next_ == 0; }
  [[nodiscard]] bool goes_on() const { return next_ != 0 && next_ != -1; }
  // One step, after a read(): goes to the piece that was named, false when it should have been and
  // was not.
  [[nodiscard]] bool rprwalk() {
    pointer_ = next_;
    return pointer_ != -1;
  }

 private:
  std::int32_t pointer_;
  std::int32_t next_ = 0;  // what the piece that was read names
  StepLimit limit_;
};

// Stores a new variable part: its first pointer, 0 for no bytes, -1 on failure.
[[nodiscard]] std::int32_t rprwrite(ConstBytes source);
// Replaces a variable part: its first pointer, which may be another one, 0 when nothing is left, or
// -1. Without `release` the part must become shorter, and keeps its storage.
[[nodiscard]] std::int32_t rprupdate(std::int32_t pointer, ConstBytes source, bool release);
// Cuts a variable part to its first `length` bytes: 0 or -1.
[[nodiscard]] int rprtrunc(std::int32_t pointer, int length);
// Releases all storage of a variable part: 0 or -1.
[[nodiscard]] int rprfree(std::int32_t pointer);
// Fills a variable part with zero bytes and keeps its storage: 0 or -1.
[[nodiscard]] int rprclear(std::int32_t pointer);

// A page with room for a piece of `size` bytes, a fresh one when no list has any.
[[nodiscard]] PageHold rpgetspc(int size);

// The bytes of a storage page before its slots are changed; of one that is on no list nothing.
class RpageBefore {
 public:
  explicit RpageBefore(const PageHold& page);
  void put_back(const PageHold& page) const;

 private:
  std::size_t size_;
  std::array<Byte, kMaxNodeSize> bytes_;  // size_ of them
};

// Files a page in the list that its room calls for and marks it as modified; one that holds nothing
// goes back to the free nodes. 0, or -1 (it is marked all the same). The lists are whole even then:
// a page that cannot leave its list stays there and gets the bytes back that it had `before`, as
// its room is to be that of its list; one that cannot join another is on none.
int rpflmove(PageHold held, const RpageBefore* before = nullptr);
// Files a page that is on no list.
int rpfladd(PageHold page);

}  // namespace isam
