#include "isam/records/askahead.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace isam {
namespace {

std::string asked(const std::vector<std::int32_t>& numbers) {
  constexpr std::int64_t kSlot = 100;
  std::string ranges;
  ask_for_slots(numbers, kSlot, [&](ByteRange range) {
    ranges += std::to_string(range.start) + "-" + std::to_string(range.end) + " ";
  });
  return ranges;
}

TEST(AskAhead, JoinsNeighboursAndGoesOnInTheirDirection) {
  EXPECT_EQ(asked({3}), "200-300 ");
  EXPECT_EQ(asked({3, 5, 4}), "200-4194804 ");
  EXPECT_EQ(asked({60000, 59999}), "1805496-6000000 ");
  EXPECT_EQ(asked({7, 6}), "0-700 ");
  EXPECT_EQ(asked({1, 1000, 2}), "0-100 99900-100000 100-200 ");
  EXPECT_EQ(asked({1000, 1163, 5000}), "99900-116300 499900-500000 ");
  EXPECT_EQ(asked({INT32_MAX, INT32_MAX - 1000}),
            "214748364600-214748364700 214748264600-214748264700 ");
}

}  // namespace
}  // namespace isam
