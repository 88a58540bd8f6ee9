// slotwalk: the slots of a data file one after the other, from nothing but their shape.
//
//   SlotWalk walk{file, shape, false};
//   for (SourceSlot slot; walk.next(slot);) ...   // slot.bytes until the next call
//
// Holes of the file are passed over: what would be absent records there is not given.
#pragma once

#include <cstdint>
#include <vector>

#include "isam/base/format.h"
#include "zentra/pair/trailer.h"
#include "zentra/salvage/rescuefile.h"

namespace zentra {

struct SlotShape {
  int length = 0;  // of a record, with variable length of its fixed part
  bool varies = false;

  [[nodiscard]] int trailer() const {
    return varies ? isam::kVariableTrailer : isam::kFixedTrailer;
  }
  [[nodiscard]] int size() const { return length + trailer(); }
  [[nodiscard]] bool operator==(const SlotShape&) const = default;
};

struct SourceSlot {
  std::int64_t offset = 0;
  std::int64_t number = 0;     // from 1
  isam::ConstBytes bytes{};    // fewer than a slot's: the file's end, or what is between slots
  bool is_unread = false;      // some bytes could not be read
  bool is_beside_odd = false;  // a neighbour has a state that is none

  [[nodiscard]] bool is_whole(const SlotShape& shape) const {
    return bytes.size() == static_cast<std::size_t>(shape.size());
  }
  [[nodiscard]] isam::ConstBytes record(const SlotShape& shape) const {
    return bytes.first(std::min(bytes.size(), static_cast<std::size_t>(shape.length)));
  }
  // Of a whole slot.
  [[nodiscard]] isam::ConstBytes trailer(const SlotShape& shape) const {
    return bytes.subspan(static_cast<std::size_t>(shape.length));
  }
  [[nodiscard]] isam::Byte state(const SlotShape& shape) const { return trailer(shape)[0]; }
};

class SlotWalk {
 public:
  // `finds_steps`: where slots go on at other places, they are looked for.
  SlotWalk(RescueFile& file, const SlotShape& shape, bool finds_steps);

  [[nodiscard]] bool next(SourceSlot& slot);
  // How often slots went on at another place.
  [[nodiscard]] std::int64_t steps() const { return steps_; }

 private:
  // What stands at an offset: as many bytes as the file has there, at most `length`.
  [[nodiscard]] isam::ConstBytes view(std::int64_t offset, std::size_t length);
  [[nodiscard]] bool is_unread(std::int64_t begin, std::int64_t end) const;
  void pass_hole();
  [[nodiscard]] bool is_odd_at(std::int64_t offset);
  [[nodiscard]] bool is_unlikely_at(std::int64_t offset);
  [[nodiscard]] bool is_out_of_step(std::int64_t offset);
  [[nodiscard]] int present_in_run(std::int64_t offset);
  [[nodiscard]] std::int64_t step_from(std::int64_t offset);

  RescueFile& file_;
  SlotShape shape_;
  bool finds_steps_;
  std::int64_t size_;  // of a slot
  std::int64_t at_ = 0;
  std::int64_t number_ = 1;
  std::int64_t asks_at_ = 0;  // where a hole may begin
  bool was_odd_ = false;
  std::int64_t steps_ = 0;
  std::vector<isam::Byte> buffer_;
  std::int64_t begin_ = 0;  // offset of the buffer's first byte
  std::size_t got_ = 0;
};

}  // namespace zentra
