// Where numbers and nodes go that a call gives back.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "isam.h"
#include "tests/support/descriptions.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

constexpr int kMinimum = 8, kLongest = 2000, kTrailer = 7;

class FreedNumbers : public testing::TestWithParam<int> {
 protected:
  ~FreedNumbers() override { ::iscleanup(); }

  void build(int format) {
    keydescr key = key_of({{0, kMinimum, KT_CHAR}});
    ::isreclen = kMinimum;
    ::isclose(::isbuild(base_.c_str(), format != 0 ? kLongest : kMinimum, &key,
                        ISINOUT | ISEXCLLOCK | format));
    isfd_ = ::isopen(base_.c_str(), ISINOUT | GetParam() | format);
  }
  [[nodiscard]] int write(int id, std::size_t length = kMinimum) const {
    std::string record = std::to_string(10000000 + id) + std::string(length - kMinimum, 'x');
    ::isreclen = static_cast<int>(length);
    return ::iswrite(isfd_, record.data());
  }
  // A field of the dictionary as it is in the file after the open is closed.
  [[nodiscard]] std::int32_t closed_with(int field) {
    ::isclose(isfd_);
    return get4(&read_file(base_ + ".idx")[static_cast<std::size_t>(field)]);
  }

  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  int isfd_ = -1;
};
INSTANTIATE_TEST_SUITE_P(Locks, FreedNumbers, testing::Values(ISMANULOCK, ISEXCLLOCK),
                         [](const auto& lock) {
                           return lock.param == ISMANULOCK ? "Shared" : "Exclusive";
                         });

// A deleted record's storage is given back before its number: the page that becomes free at once
// takes the list of free numbers.
TEST_P(FreedNumbers, GoOnTheirListInTheNodeThatTheRecordLeaves) {
  build(ISVARLEN);
  for (int id = 1; id <= 3; ++id) ASSERT_EQ(write(id, 900), 0);
  ASSERT_EQ(::isflush(isfd_), 0);
  const Image data = read_file(base_ + ".dat");
  const std::int32_t page = get4(&data[2 * (kMinimum + kTrailer) - 4]) & 0xFFFFFF;
  const std::int32_t nodes = get4(&read_file(base_ + ".idx")[dict::kNextNode]);
  ASSERT_EQ(::isdelrec(isfd_, 2), 0);
  EXPECT_EQ(closed_with(dict::kFreeData), page);
  EXPECT_EQ(closed_with(dict::kNextNode), nodes);
  EXPECT_EQ(closed_with(dict::kFreeNode), 0);
  EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
}

// The highest number in use is on the list, since the one above it was freed after it. An exclusive
// open that takes it in vain frees it like any other; else a failing call leaves all as it was.
TEST_P(FreedNumbers, AreFreedAgainWhenTheirRecordIsRefused) {
  build(0);
  for (int id = 1; id <= 3; ++id) ASSERT_EQ(write(id), 0);
  for (const int number : {2, 3}) ASSERT_EQ(::isdelrec(isfd_, number), 0);
  EXPECT_EQ(write(1), -1);
  EXPECT_EQ(::iserrno, ISEDUPLICATE);
  EXPECT_EQ(closed_with(dict::kNextData), GetParam() == ISEXCLLOCK ? 1 : 2);
  EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
}

}  // namespace
}  // namespace testing_support
