// scanahead: the records that the next steps of a scan will read, copied while the file is entered.
//
// A step (RD_NEXT or RD_PREV that locks nothing) that follows others like it is answered from the
// copies. The file is not entered for it: where others share the file this spares the two system
// calls of the lock, and everywhere the way through the tree.
//
// Keeps   what isam/calls/asof says; a step that is served leaves what one through the tree leaves.
//         The position follows when another call needs it (leave_scan)
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "isam/base/current.h"
#include "isam/calls/asof.h"
#include "isam/calls/cursor.h"
#include "isam/calls/portionsahead.h"
#include "isam/tree/leafrun.h"

namespace isam {

class ScanAhead {
 public:
  // Copies what the steps after the one that the current open has just read will be asked for;
  // nothing where it cannot be known or without memory.
  void fill(Cursor& cursor, ReadMode mode);
  // Whether there is a next record, and the dictionary of the open's file stands.
  [[nodiscard]] bool serves(OpenPair& file) const;
  // Gives the next record, and what a read sets beside it.
  void take(char* record);
  // Puts the position of the open on the record given last, and forgets the others.
  void settle(Open& open);

  PortionsAhead portions;  // of calls that read many

 private:
  static constexpr std::size_t kLeast = 2;  // records in the first portion; each next has twice
  static constexpr std::size_t kMost = 64;  // as many, as long as all of them are asked for
  static constexpr std::size_t kMostBytes = std::size_t{32} * 1024;

  [[nodiscard]] bool has_room();
  std::size_t gather(const Cursor& cursor, Direction direction);
  bool keep_leaf(const Cursor& cursor);
  [[nodiscard]] ConstBytes leaf() const { return {leaf_.data(), leaf_length_}; }

  std::size_t wanted_ = kLeast;
  std::size_t count_ = 0;  // records copied
  std::size_t given_ = 0;  // ... and asked for since
  std::size_t room_ = 0;   // records that fit
  std::unique_ptr<Byte[]> records_;
  AsOf as_of_;  // what is copied is right as long as this stands
  LeafRun run_;
  std::array<Byte, kMaxNodeSize> leaf_;  // a copy of the leaf's items
  std::size_t leaf_length_ = 0;
  std::array<std::int32_t, kMost> numbers_;
  std::array<std::int32_t, kMost> lengths_;
  std::array<bool, kMost> same_key_;  // as that of the neighbour
};

// Whether a read goes to the next or the previous record, and asks for no lock.
[[nodiscard]] constexpr bool is_step(int mode) { return mode == RD_NEXT || mode == RD_PREV; }

// isread() of a step.
int read_step(int isfd, char* record, int mode);

// What the current open reads ahead; null without memory.
[[nodiscard]] ScanAhead* scan_ahead();

// Ends a row of steps, or of portions: the position is where the last one has left it.
void leave_scan(Open& open);

}  // namespace isam
