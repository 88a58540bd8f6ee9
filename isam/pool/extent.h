// extent: the room that an exclusive open takes in its files before it writes there.
//
// The pages that such an open changes are written when their call is long over. Where they will
// lengthen a file, the call writes zero bytes there at once, so that a full disk fails the call
// that needs the room. Each such write takes more pages than the one before, up to fifteen beyond
// those needed, so that a long load has few such writes.
//
// Needs   the current file. Without an exclusive open nothing is reserved: what a call of a shared
//         one changes is written when the call ends
// Keeps   X1 room that cannot be had in full leaves the file as it was
//         X2 what was reserved and is not needed is cut off when all changes are written
//         X3 a disk that has room for what is needed, but for no more, fails nothing
#pragma once

#include <cstdint>

#include "isam/base/current.h"
#include "isam/base/errors.h"

namespace isam {

// Forgets how large the current pair's files are: the next lengthen() asks the system.
void forget_extent();

// Makes a file reach to `to` at least, for pages or slots that begin at `from`. To a file that ends
// before `to` it writes zero bytes from its end on (from `from` on when the file ends before that:
// what lies between is not written) up to `to`, and up to fifteen pages more where the disk has
// room. Whether it writes or not, it notes of a data file that cut_unused_room() must leave the
// bytes before `to` (Extent::kept). 0, or -1 with the system's error.
int lengthen(FileKind kind, std::int64_t from, std::int64_t to);

// While it lives no room is reserved. It is for steps that put back what a failed call has changed:
// that had its room in the files before the call.
class RoomIsThere {
 public:
  RoomIsThere() : call_(filep->call) { call_.has_room = true; }
  RoomIsThere(const RoomIsThere&) = delete;
  RoomIsThere& operator=(const RoomIsThere&) = delete;
  ~RoomIsThere() { call_.has_room = false; }

 private:
  OfCall& call_;
};

// Whether room is to be reserved for what changes in the current file: under an exclusive open,
// but not in a repair (MarkState::kUnneeded), which ends anyway when a write fails.
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
  // It is not the file's size that decides here, as it does for nodes: a block that the file has
  // already must still be noted, by lengthen(), as one that is not cut off.
  if (!reserves_room() || k * slot_size() <= filep->data.extent.kept) return 0;
  const std::int64_t first = (k - 1) * slot_size() / kPageSize * kPageSize;
  return lengthen(FileKind::kData, first, end_of_slot(k));
}

// Cuts off what was reserved past the last node and block in use. A failure leaves it there.
void cut_unused_room();

}  // namespace isam
