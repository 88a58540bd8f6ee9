// extent: what lengthens the files of an exclusive open.
//
// Its pages are written when their call is long over. Where they will lengthen a file zero bytes do
// so before, so that a full disk fails the call that needs the room. They do so for more and more
// pages at a time, so that a long load has few writes of that kind.
//
// Needs   the current file; others than exclusive opens' are left alone: what they change is
//         written when the call ends
// Keeps   X1 room that cannot be had in full leaves the file as it was
//         X2 what was reserved and is not needed goes when the file is flushed or given up
//         X3 a disk that has room for what is needed, but for no more, fails nothing
#pragma once

#include <cstdint>

#include "isam/base/current.h"
#include "isam/base/errors.h"

namespace isam {

// What the files have is not known from before.
void forget_extent();

// Room for these bytes of a file, from the first of their pages on: 0, or -1 with the system's
// error.
int lengthen(FileKind kind, std::int64_t from, std::int64_t to);

// While it lives room need not be had: what a failed call puts back was there before.
class RoomIsThere {
 public:
  RoomIsThere() : call_(filep->call) { call_.has_room = true; }
  RoomIsThere(const RoomIsThere&) = delete;
  RoomIsThere& operator=(const RoomIsThere&) = delete;
  ~RoomIsThere() { call_.has_room = false; }

 private:
  OfCall& call_;
};

// Whether the current file's room is seen to here.
[[nodiscard]] inline bool reserves_room() {
  return filep->locks.exclusives > 0 && filep->mark.state != MarkState::kUnneeded &&
         !filep->call.has_room;
}

// Room for the nodes from `first` to `last`: 0 or -1.
[[nodiscard]] inline int reserve_nodes(std::int64_t first, std::int64_t last) {
  if (!reserves_room() || last * node_size() <= filep->index.extent.bytes) return 0;
  return lengthen(FileKind::kIndex, (first - 1) * node_size(), last * node_size());
}

// Where the block ends that has the last byte of the slot of record k.
[[nodiscard]] inline std::int64_t end_of_slot(std::int64_t k) {
  return (k * slot_size() + kPageSize - 1) / kPageSize * kPageSize;
}

// Room for the slot of record k, in whole blocks: 0 or -1.
[[nodiscard]] inline int reserve_slot(std::int64_t k) {
  if (!reserves_room() || k * slot_size() <= filep->data.extent.kept) return 0;
  const std::int64_t first = (k - 1) * slot_size() / kPageSize * kPageSize;
  return lengthen(FileKind::kData, first, end_of_slot(k));
}

// Cuts off what was reserved past the last node and block in use.
void cut_unused_room();

}  // namespace isam
