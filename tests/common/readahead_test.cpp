#include "common/readahead.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>
#include <vector>

#include "common/io.h"
#include "tests/support/between.h"

namespace common {
namespace {

class ReadAheadTest : public testing::Test {
 protected:
  void SetUp() override {
    std::mt19937 random(1);
    content_.resize(300'000);
    for (Byte& byte : content_) byte = static_cast<Byte>(random());
    file_ = std::tmpfile();
    fd_ = ::fileno(file_);
    ASSERT_EQ(write_at(fd_, content_, 0), 0);
    testing_support::stand_between([this](const testing_support::SystemCall& call) {
      if (call.kind == testing_support::SystemCall::kRead) ++reads_;
      return call.at + static_cast<off_t>(call.count) > bad_from_ ? EIO : 0;
    });
  }
  void TearDown() override {
    testing_support::stand_aside();
    std::fclose(file_);
  }

  void expect_page(std::int64_t offset) {
    constexpr std::int64_t kPage = 1024;
    std::vector<Byte> page(kPage);
    const ssize_t got = window_.read(fd_, map_, page, offset);
    const auto there = std::max<std::int64_t>(
        0, std::min(kPage, static_cast<std::int64_t>(content_.size()) - offset));
    ASSERT_EQ(got, there) << offset;
    ASSERT_TRUE(std::equal(page.begin(), page.begin() + there, content_.begin() + offset));
  }

  std::vector<Byte> content_;
  std::FILE* file_ = nullptr;
  int fd_ = -1;
  ReadAhead window_;
  FileMap map_;
  int reads_ = 0;
  std::int64_t bad_from_ = INT64_MAX;  // reads that touch bytes from here on fail
};

// The end of the file cuts a page.
TEST_F(ReadAheadTest, SequentialPagesCostFewCalls) {
  for (std::int64_t at = 0; at < 303'000; at += 1024) expect_page(at);
  EXPECT_LT(reads_, 16);
}

TEST_F(ReadAheadTest, RandomPagesAreReadAlone) {
  std::mt19937 random(2);
  for (int i = 0; i < 500; ++i) expect_page(static_cast<std::int64_t>(random() % 300) * 1024);
  EXPECT_GE(reads_, 450);
  EXPECT_LE(reads_, 500);
}

TEST_F(ReadAheadTest, WrittenBytesAreSeen) {
  for (std::int64_t at = 0; at < 8192; at += 1024) expect_page(at);
  content_[9000] ^= 0xFF;
  ASSERT_EQ(write_at(fd_, {&content_[9000], 1}, 9000), 0);
  window_.overwritten(fd_, 9000, 1);
  expect_page(8192);
}

TEST_F(ReadAheadTest, AFailureBehindThePageIsNotItsFailure) {
  bad_from_ = 10'240;
  for (std::int64_t at = 0; at < 10'240; at += 1024) expect_page(at);
  std::vector<Byte> page(1024);
  EXPECT_EQ(window_.read(fd_, map_, page, 10'240), -1);
  EXPECT_EQ(errno, EIO);
}

}  // namespace
}  // namespace common
