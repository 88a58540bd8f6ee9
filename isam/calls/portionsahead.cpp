#include "isam/calls/portionsahead.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "isam/base/errors.h"

namespace isam {

bool PortionsAhead::begin(int count, int mode, int row_before) {
  count_ = count;
  mode_ = mode;
  row_ = std::min(row_before + 1, 2);
  filled_ = given_ = 0;
  if (row_ < 2) wanted_ = 1;
  const auto records = static_cast<std::size_t>(count);
  const std::size_t bytes = records * static_cast<std::size_t>(filep->geometry.maxreclen);
  wanted_ = std::min(wanted_, kMostBytes / bytes);
  if (row_ < 2 || wanted_ == 0) return false;
  try {
    records_.resize(std::max(records_.size(), wanted_ * bytes));
    numbers_.resize(std::max(numbers_.size(), wanted_ * records));
    lengths_.resize(numbers_.size());
    behind_.reserve(kMost);
  } catch (const std::bad_alloc&) {
    return false;
  }
  behind_.clear();
  return true;
}

recordset PortionsAhead::place() {
  const std::size_t first = filled_ * static_cast<std::size_t>(count_);
  const std::size_t size =
      static_cast<std::size_t>(count_) * static_cast<std::size_t>(filep->geometry.maxreclen);
  return {count_, reinterpret_cast<char*>(&records_[filled_ * size]), size, &numbers_[first],
          &lengths_[first]};
}

void PortionsAhead::add(const Cursor& cursor) {
  behind_.push_back(cursor);
  ++filled_;
}

void PortionsAhead::take(const recordset& set, Open& open) {
  const auto records = static_cast<std::size_t>(count_);
  const auto room = static_cast<std::size_t>(open.file->geometry.maxreclen);
  const std::size_t first = given_ * records;
  const Byte* const from = &records_[first * room];
  if (open.file->geometry.varlen) {
    for (std::size_t i = 0; i < records; ++i) {
      std::memcpy(set.records + i * room, from + i * room,
                  static_cast<std::size_t>(lengths_[first + i]));
    }
  } else {
    std::memcpy(set.records, from, records * room);
  }
  std::copy_n(&numbers_[first], records, set.numbers);
  std::copy_n(&lengths_[first], records, set.lengths);
  isrecnum = numbers_[first + records - 1];
  isreclen = lengths_[first + records - 1];
  open.cursor = behind_[given_++];
  open.position = open.cursor.bt;
  if ((open.position.state & kSameKeyNearby) != 0) {
    set_status("0202");
  } else {
    set_status("0000");
  }
}

void PortionsAhead::forget() {
  const bool all_asked_for = given_ == filled_;
  if (filled_ > 0) wanted_ = all_asked_for ? std::min(2 * wanted_ + 1, kMost) : 1;
  filled_ = given_ = 0;
  row_ = 0;
}

}  // namespace isam
