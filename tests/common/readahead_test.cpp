#include "common/readahead.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>
#include <vector>

#include "common/io.h"

namespace common {
namespace {

int reads = 0;
std::int64_t bad_from = INT64_MAX;  // reads that touch bytes from here on fail

class ReadAheadTest : public testing::Test {
 protected:
  void SetUp() override {
    std::mt19937 random(1);
    content_.resize(300'000);
    for (Byte& byte : content_) byte = static_cast<Byte>(random());
    file_ = std::tmpfile();
    fd_ = ::fileno(file_);
    ASSERT_EQ(write_at(fd_, content_, 0), 0);
    reads = 0;
    bad_from = INT64_MAX;
    real_ = system_calls();
    system_calls().pread = [](int fd, void* to, std::size_t count, off_t offset) -> ssize_t {
      ++reads;
      if (offset + static_cast<off_t>(count) > bad_from) {
        errno = EIO;
        return -1;
      }
      return ::pread(fd, to, count, offset);
    };
  }
  void TearDown() override {
    system_calls() = real_;
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
  SystemCalls real_{};
};

// The end of the file cuts a page.
TEST_F(ReadAheadTest, SequentialPagesCostFewCalls) {
  for (std::int64_t at = 0; at < 303'000; at += 1024) expect_page(at);
  EXPECT_LT(reads, 16);
}

TEST_F(ReadAheadTest, RandomPagesAreReadAlone) {
  std::mt19937 random(2);
  for (int i = 0; i < 500; ++i) expect_page(static_cast<std::int64_t>(random() % 300) * 1024);
  EXPECT_GE(reads, 450);
  EXPECT_LE(reads, 500);
}

TEST_F(ReadAheadTest, WrittenBytesAreSeen) {
  for (std::int64_t at = 0; at < 8192; at += 1024) expect_page(at);
  content_[9000] ^= 0xFF;
  ASSERT_EQ(write_at(fd_, {&content_[9000], 1}, 9000), 0);
  window_.overwritten(fd_, 9000, 1);
  expect_page(8192);
}

TEST_F(ReadAheadTest, AFailureBehindThePageIsNotItsFailure) {
  bad_from = 10'240;
  for (std::int64_t at = 0; at < 10'240; at += 1024) expect_page(at);
  std::vector<Byte> page(1024);
  EXPECT_EQ(window_.read(fd_, map_, page, 10'240), -1);
  EXPECT_EQ(errno, EIO);
}

}  // namespace
}  // namespace common
