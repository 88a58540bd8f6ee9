// Calls of isreadmany that follow each other under a shared open: whatever comes between two of
// them, each reads on from where the last call has left the position, and what is in the file.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "common/io.h"
#include "isam.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

constexpr int kLength = 40;
constexpr int kRecords = 2000;
constexpr int kPortion = 5;
using Numbers = std::vector<std::int32_t>;

std::string record_of(int id, char filling = 'a') {
  std::string record = std::to_string(10'000'000 + id);
  record.resize(kLength, filling);
  return record;
}

int locks = 0;

class Portions : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    int isfd = ::isbuild(base_.c_str(), kLength, &key_, ISINOUT + ISEXCLLOCK);
    for (int id = 1; id <= kRecords; ++id) ::iswrite(isfd, record_of(id).data());
    ::isclose(isfd);
    isfd_ = ::isopen(base_.c_str(), ISINOUT + ISMANULOCK);
    other_ = ::isopen(base_.c_str(), ISINOUT + ISMANULOCK);
    // As many reads by themselves as it takes until the files are mapped.
    for (int id = 1; id <= kRecords; id += 7) read(RD_EQUAL, id);
    common::system_calls().fcntl_lock = [](int fd, int command, struct flock* lock) {
      ++locks;
      return ::fcntl(fd, command, lock);
    };
  }
  void TearDown() override {
    ::iscleanup();
    common::system_calls().fcntl_lock = lock_before_;
  }

  int read(int mode, int id = 0) {
    record_ = record_of(id);
    return ::isread(isfd_, record_.data(), mode);
  }
  void start() {
    keydescr order = GetParam() ? key_ : keydescr{};
    EXPECT_EQ(::isstart(isfd_, &order, 0, record_.data(), RD_FIRST), 0);
  }
  // The numbers of the next records, which are what records_ has.
  Numbers portion(int mode = RD_NEXT, int count = kPortion) {
    Numbers numbers(static_cast<std::size_t>(count));
    Numbers lengths(numbers.size());
    records_.assign(numbers.size() * kLength, 0);
    recordset set{count, records_.data(), records_.size(), numbers.data(), lengths.data()};
    const int got = ::isreadmany(isfd_, &set, mode);
    numbers.resize(static_cast<std::size_t>(std::max(got, 0)));
    if (got > 0) {
      EXPECT_EQ(::isrecnum, numbers.back());
    }
    for (int i = 0; i < got; ++i) {
      const auto at = static_cast<std::size_t>(i);
      EXPECT_EQ(records_.substr(at * kLength, 8), record_of(numbers[at]).substr(0, 8));
    }
    return numbers;
  }
  static Numbers from(std::int32_t first, int count = kPortion) {
    Numbers numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
  }
  // Reads the first portions, so many that the next ones are copied with them.
  void come_to_20() {
    start();
    for (int first = 1; first <= 16; first += kPortion) EXPECT_EQ(portion(), from(first));
  }

  const TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  keydescr key_{0, 1, {{0, 8, KT_CHAR}}, 0, 0};
  const decltype(common::SystemCalls::fcntl_lock) lock_before_ = common::system_calls().fcntl_lock;
  int isfd_ = -1;
  int other_ = -1;
  std::string record_;
  std::string records_;
};

TEST_P(Portions, EachCallGoesOnFromTheCallBefore) {
  const std::vector<std::pair<std::function<void()>, Numbers>> between{
      {[] {}, from(21)},
      {[&] { EXPECT_EQ(read(RD_NEXT), 0); }, from(22)},
      {[&] { EXPECT_EQ(read(RD_PREV), 0); }, from(20)},
      {[&] { EXPECT_EQ(read(RD_CURR), 0); }, from(21)},
      {[&] { EXPECT_EQ(portion(RD_NEXT, 3), from(21, 3)); }, from(24)},
      {[&] {
         EXPECT_EQ(portion(RD_PREV), (Numbers{19, 18, 17, 16, 15}));
       },
       from(16)},
      {[&] { start(); }, from(1)},
      {[&] { EXPECT_EQ(portion(RD_NEXT + RD_LOCK), from(21)); }, from(26)},
      {[&] { EXPECT_EQ(portion(RD_NEXT, 0), Numbers{}); }, from(21)},
      {[&] { EXPECT_EQ(::iswrite(isfd_, record_of(kRecords + 1).data()), 0); }, from(21)},
  };
  for (const auto& [call, expected] : between) {
    SCOPED_TRACE(&call - &between.front().first);
    come_to_20();
    call();
    EXPECT_EQ(portion(), expected);
    EXPECT_EQ(portion(), from(expected.back() + 1));
    EXPECT_EQ(read(RD_CURR), 0);
    EXPECT_EQ(::isrecnum, expected.back() + kPortion);
  }
}

TEST_P(Portions, WhatAnotherOpenHasChangedIsSeen) {
  come_to_20();
  EXPECT_EQ(::isrewrite(other_, record_of(21, 'b').data()), 0);
  EXPECT_EQ(portion(), from(21));
  EXPECT_EQ(records_.substr(0, kLength), record_of(21, 'b'));
  come_to_20();
  EXPECT_EQ(::isdelete(other_, record_of(22).data()), 0);
  EXPECT_EQ(portion(), (Numbers{21, 23, 24, 25, 26}));
}

// A scan to its end asks for fewer locks than it has portions, both of them.
TEST_P(Portions, MostCallsAskForNoLock) {
  for (const int mode : {RD_NEXT, RD_PREV}) {
    start();
    ASSERT_EQ(read(mode == RD_PREV ? RD_LAST : RD_FIRST), 0);
    if (mode == RD_NEXT) start();
    locks = 0;
    int records = 0;
    int portions = 0;
    for (Numbers got = portion(mode); !got.empty(); got = portion(mode)) {
      ++portions;
      records += static_cast<int>(got.size());
    }
    EXPECT_EQ(::iserrno, ISEEND);
    EXPECT_EQ(records, mode == RD_NEXT ? kRecords : kRecords - 1);
    EXPECT_EQ(portions, kRecords / kPortion);
    EXPECT_LT(locks, portions / 2);
  }
}

INSTANTIATE_TEST_SUITE_P(InTheOrderOfAKeyOrOfNumbers, Portions, testing::Bool());

}  // namespace
}  // namespace testing_support
