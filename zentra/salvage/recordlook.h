// recordlook: what the records of a file look like, column by column, and whether other bytes do.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "isam/base/format.h"

namespace zentra {

class RecordLook {
 public:
  explicit RecordLook(int length) : counts_(static_cast<std::size_t>(length)) {}

  // A record as they are.
  void note(isam::ConstBytes record) {
    ++records_;
    for (std::size_t i = 0; i < record.size(); ++i) ++counts_[i][kind_of(record[i])];
  }
  // Whether nearly every byte is of a kind that is usual in its column.
  [[nodiscard]] bool fits(isam::ConstBytes record) const {
    constexpr std::size_t kFewOdd = 8;  // one column in so many
    std::size_t odd = 0;
    for (std::size_t i = 0; i < record.size(); ++i) {
      const std::uint32_t alike = counts_[i][kind_of(record[i])];
      odd += alike == 0 || alike < records_ / kRare ? 1 : 0;
    }
    return records_ > 0 && odd <= record.size() / kFewOdd;
  }

 private:
  static constexpr std::uint32_t kRare = 100;
  static constexpr std::size_t kKinds = 8;

  static std::size_t kind_of(isam::Byte byte) {
    if (byte == 0) return 0;
    if (byte < ' ') return 1;
    if (byte == ' ') return 2;
    if (byte >= '0' && byte <= '9') return 3;
    if (byte >= 'A' && byte <= 'Z') return 4;
    if (byte >= 'a' && byte <= 'z') return 5;
    return byte < 0x7F ? 6 : 7;
  }

  std::vector<std::array<std::uint32_t, kKinds>> counts_;
  std::uint32_t records_ = 0;
};

}  // namespace zentra
