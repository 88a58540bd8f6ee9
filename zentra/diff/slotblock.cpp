#include "zentra/diff/slotblock.h"

#include <algorithm>

#include "common/io.h"

namespace zentra {

SlotBlock::SlotBlock(const Side& side)
    : side_(side), size_(static_cast<std::size_t>(side.slot_size())) {
  const std::int64_t slots =
      (common::file_size(side.data) + side.slot_size() - 1) / side.slot_size();
  last_in_file_ = static_cast<std::int32_t>(std::min<std::int64_t>(slots, side.last));
}

void SlotBlock::read(std::int32_t first, std::size_t slots) {
  first_ = first;
  unreadable_.clear();
  got_ = 0;
  if (first > last_in_file_) return;
  slots = std::min(slots, static_cast<std::size_t>(last_in_file_ - first) + 1);
  bytes_.resize(slots * size_);
  const std::int64_t offset = std::int64_t{first - 1} * side_.slot_size();
  const ssize_t got = common::read_at(side_.data, bytes_, offset);
  if (got >= 0) {
    got_ = static_cast<std::size_t>(got);
    return;
  }
  got_ = bytes_.size();
  for (std::size_t at = 0; at < slots; ++at) {
    const auto from = static_cast<std::int64_t>(at * size_);
    const isam::Bytes slot = isam::Bytes{bytes_}.subspan(at * size_, size_);
    unreadable_.push_back(common::read_at(side_.data, slot, offset + from) !=
                          static_cast<ssize_t>(size_));
  }
}

Slot SlotBlock::slot(std::int32_t number) const {
  if (number > side_.last) return {};
  if (number > last_in_file_) return {.state = Slot::State::kLost};
  const auto at = static_cast<std::size_t>(number - first_);
  if (!unreadable_.empty() && unreadable_[at]) {
    return {.state = Slot::State::kLost, .why = "the data file cannot be read there"};
  }
  if ((at + 1) * size_ > got_) {
    return {.state = Slot::State::kLost, .why = "the data file ends within it"};
  }
  const isam::ConstBytes bytes = isam::ConstBytes{bytes_}.subspan(at * size_, size_);
  const isam::Byte state = bytes[static_cast<std::size_t>(side_.shape.reclen)];
  if (state == isam::kRecordAbsent) return {};
  if (state == isam::kRecordPresent) return {.state = Slot::State::kPresent, .bytes = bytes};
  return {.state = Slot::State::kLost, .why = "its state is neither present nor absent"};
}

isam::ConstBytes SlotBlock::bytes() const {
  return isam::ConstBytes{bytes_}.first(unreadable_.empty() ? got_ : 0);
}

}  // namespace zentra
