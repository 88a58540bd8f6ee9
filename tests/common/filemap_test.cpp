#include "common/filemap.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "common/coldreads.h"
#include "common/holders.h"
#include "common/io.h"
#include "common/readahead.h"
#include "tests/support/between.h"
#include "tests/support/run_program.h"

namespace common {
namespace {

constexpr std::size_t kSize = 300'000;

class FileMapTest : public testing::Test {
 protected:
  void SetUp() override {
    file_ = std::tmpfile();
    fd_ = ::fileno(file_);
    ASSERT_EQ(write_at(fd_, std::vector<Byte>(kSize, 'a'), 0), 0);
    warm_up();
  }
  void TearDown() override { std::fclose(file_); }

  void warm_up() {
    for (int i = 0; i < 100; ++i) read(0, 1);
  }
  // As many of the bytes asked for as the file has.
  std::vector<Byte> read(std::int64_t offset, std::size_t count) {
    std::vector<Byte> bytes(count);
    const ssize_t got = map_.read(fd_, bytes, offset);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
  }
  void expect(std::int64_t offset, std::size_t count, Byte byte) {
    EXPECT_EQ(read(offset, count), std::vector<Byte>(count, byte)) << offset;
  }

  std::FILE* file_ = nullptr;
  int fd_ = -1;
  FileMap map_;
};

TEST_F(FileMapTest, ShowsWhatIsWrittenAndWhatIsAdded) {
  expect(70'000, 1000, 'a');
  ASSERT_EQ(write_at(fd_, std::vector<Byte>(1000, 'b'), 70'000), 0);
  expect(70'000, 1000, 'b');
  EXPECT_EQ(read(kSize - 10, 20).size(), 10U);
  const std::vector<Byte> more(4 * kSize, 'c');
  ASSERT_EQ(write_at(fd_, more, kSize), 0);
  expect(kSize - 10, 10, 'a');
  for (std::int64_t at = kSize; at < std::int64_t{5 * kSize}; at += 1000) expect(at, 1000, 'c');
  EXPECT_TRUE(read(5 * kSize, 1).empty());
}

TEST_F(FileMapTest, AFileCutOffIsAShortRead) {
  expect(200'000, 1000, 'a');
  ASSERT_EQ(::ftruncate(fd_, 100'500), 0);
  EXPECT_TRUE(read(200'000, 1000).empty());
  EXPECT_EQ(read(100'000, 1000).size(), 500U);
  expect(1000, 1000, 'a');
  map_.forget();
  warm_up();
  ASSERT_EQ(::ftruncate(fd_, 0), 0);
  EXPECT_TRUE(read(90'000, 1000).empty());
}

TEST_F(FileMapTest, ReadsThatATestReplacesAreAskedFor) {
  testing_support::refuse(testing_support::SystemCall::kRead, EIO);
  Byte byte = 0;
  EXPECT_EQ(map_.read(fd_, {&byte, 1}, 0), -1);
  EXPECT_EQ(errno, EIO);
  testing_support::stand_aside();
  expect(0, 10, 'a');
}

TEST_F(FileMapTest, AnotherMappingsMissingPageStillEndsTheProcess) {
  void* const pages = ::mmap(nullptr, kSize, PROT_READ, MAP_SHARED, fd_, 0);
  ASSERT_NE(pages, MAP_FAILED);
  ASSERT_EQ(::ftruncate(fd_, 0), 0);
  // By the signal, or by the handler of before, such as a sanitizer's.
  EXPECT_DEATH(std::fputc(static_cast<volatile Byte*>(pages)[100'000], stderr), "");
  ::munmap(pages, kSize);
}

// How many of these pages of a file the system has in memory.
int pages_in_memory(int fd, off_t from, std::size_t length) {
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  void* const pages = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, from);
  std::vector<unsigned char> present(length / page);
  EXPECT_EQ(::mincore(pages, length, present.data()), 0);
  ::munmap(pages, length);
  return static_cast<int>(std::ranges::count_if(present, [](auto bits) { return bits & 1; }));
}

TEST(ColdFileTest, TheSystemReadsWhatLiesAroundAReadThatHasWaited) {
  constexpr std::int64_t kPlaces = 32;  // not each read is looked at
  constexpr std::int64_t kApart = std::int64_t{1} << 18;
  constexpr std::size_t kAround = std::size_t{64} * 1024;
  const testing_support::TempFolder folder;
  const FileHold file{::open((folder / "cold").c_str(), O_RDWR | O_CREAT, 0666)};
  const int fd = file.get();
  // Page by page: large pages of which one part is mapped stay as a whole.
  const std::vector<Byte> page(4096, 'a');
  for (std::int64_t at = 0; at < kPlaces * kApart; at += std::ssize(page)) {
    ASSERT_EQ(write_at(fd, page, at), 0);
  }
  FileMap map;
  Byte byte = 0;
  for (int i = 0; i < 100; ++i) ASSERT_EQ(map.read(fd, {&byte, 1}, 0), 1);  // it is mapped
  ASSERT_EQ(::fsync(fd), 0);
  int asked = 0;
  for (std::int64_t at = kApart; at < kPlaces * kApart && asked < 4; at += kApart) {
    // With nothing of it in memory the read waits, however quick the disk is.
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    if (pages_in_memory(fd, at, kAround) != 0) GTEST_SKIP() << "these files stay in memory";
    ASSERT_EQ(map.read(fd, {&byte, 1}, at + 5000), 1);
    const int all = static_cast<int>(kAround) / static_cast<int>(::sysconf(_SC_PAGESIZE));
    for (int tries = 0; tries < 20 && pages_in_memory(fd, at, kAround) < all; ++tries) {
      ::usleep(2000);
    }
    asked += pages_in_memory(fd, at, kAround) == all ? 1 : 0;
  }
  EXPECT_EQ(asked, 4);
}

TEST(ColdFileTest, TheSystemReadsWhatFollowsAWindowThatHasWaited) {
  constexpr std::size_t kWindow = std::size_t{64} * 1024;
  constexpr std::size_t kBehind = std::size_t{256} * 1024;
  const testing_support::TempFolder folder;
  const FileHold file{::open((folder / "cold").c_str(), O_RDWR | O_CREAT, 0666)};
  const int fd = file.get();
  ASSERT_EQ(write_at(fd, std::vector<Byte>(std::size_t{1} << 20, 'a'), 0), 0);
  ASSERT_EQ(::fsync(fd), 0);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  if (pages_in_memory(fd, 0, kWindow + kBehind) != 0) {
    GTEST_SKIP() << "these files stay in memory";
  }
  FileMap map;
  ReadAhead window;
  std::vector<Byte> page(1024);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(window.read(fd, map, page, i * 1024), 1024);
  const int all = static_cast<int>(kBehind) / static_cast<int>(::sysconf(_SC_PAGESIZE));
  const auto found = [&] { return pages_in_memory(fd, kWindow + 8192, kBehind); };
  for (int tries = 0; tries < 100 && found() < all; ++tries) ::usleep(2000);
  EXPECT_EQ(found(), all);
}

constexpr std::int64_t kKib = 1024;

// Single reads of a file. What they ask for is told in KiB: "64-128", "" for nothing, "unseen" for
// a read that is not looked at.
class SingleReads {
 public:
  explicit SingleReads(std::int64_t kib) : size_(kib * kKib) {}

  std::string wait(std::int64_t kib) { return read(kib, true); }
  std::string go_on(std::int64_t kib) { return read(kib, false); }

 private:
  std::string read(std::int64_t kib, bool has_waited) {
    if (!reads_.is_due()) return "unseen";
    const ByteRange range = reads_.note(kib * kKib, size_, has_waited);
    if (range.empty()) return "";
    return std::to_string(range.start / kKib) + "-" + std::to_string(range.end / kKib);
  }

  std::int64_t size_;
  ColdReads reads_;
};

TEST(ColdReadsTest, AskForWhatLiesAroundReadsThatHaveWaited) {
  SingleReads reads(65'500);
  EXPECT_EQ(reads.wait(100), "64-128");
  EXPECT_EQ(reads.go_on(127), "");
  EXPECT_EQ(reads.wait(128), "128-256") << "goes on";
  EXPECT_EQ(reads.wait(200), "") << "is on its way";
  EXPECT_EQ(reads.wait(256), "256-512") << "goes on";
  EXPECT_EQ(reads.wait(600), "576-640") << "elsewhere";
  EXPECT_EQ(reads.wait(100), "") << "was asked for before";
  EXPECT_EQ(reads.wait(65'499), "65472-65500") << "up to the end of the file";
}

// All reads are looked at until many in a row have not waited.
TEST(ColdReadsTest, LookAtFewReadsWhileNoneWaits) {
  SingleReads reads(65'536);
  EXPECT_EQ(reads.wait(0), "0-64");
  for (int i = 0; i < 1024; ++i) EXPECT_EQ(reads.go_on(i), "") << i;
  for (int i = 0; i < 16; ++i) EXPECT_EQ(reads.wait(i), "unseen") << i;
  EXPECT_EQ(reads.wait(6'400), "6400-6464");
}

// A file of 8,000 pages, read at random, and what reads of a page have asked for.
class ReadAtRandom : public testing::Test {
 protected:
  static constexpr std::int64_t kPage = 4096;
  static constexpr std::int64_t kPages = 8000;

  // Asks for a page that nobody has asked for, if `ask` says so. The length of what is asked for.
  template <typename Ask>
  std::int64_t ask_for(std::int64_t page, Ask ask) {
    const ByteRange range = ask(page * kPage);
    EXPECT_TRUE(range.empty() || (range.start <= page * kPage && range.end > page * kPage)) << page;
    EXPECT_LE(range.end, kPages * kPage);
    for (std::int64_t at = range.start / kPage; at * kPage < range.end; ++at) {
      asked_[static_cast<std::size_t>(at)] = true;
    }
    return range.end - range.start;
  }
  [[nodiscard]] bool is_asked(std::int64_t page) const {
    return asked_[static_cast<std::size_t>(page)];
  }
  [[nodiscard]] bool are_all_asked() const { return std::ranges::count(asked_, false) == 0; }
  // Each page once, far from the one before.
  static std::int64_t page_of(std::int64_t i) { return i * 3001 % kPages; }

  std::vector<bool> asked_ = std::vector<bool>(kPages);
  ColdReads reads_;
};

TEST_F(ReadAtRandom, SoonAsksForAllOfTheFile) {
  int waits = 0;
  std::int64_t total = 0;
  for (std::int64_t i = 0; i < kPages; ++i) {
    if (is_asked(page_of(i))) continue;
    ASSERT_TRUE(reads_.is_due());
    const std::int64_t length =
        ask_for(page_of(i), [&](auto at) { return reads_.note(at, kPages * kPage, true); });
    EXPECT_LE(length, total * 64 * 16 / kPages + ColdReads::kLeastAsked) << "after " << total;
    EXPECT_LE(length, ColdReads::kMostAsked);
    total += length;
    ++waits;
  }
  EXPECT_TRUE(are_all_asked());
  EXPECT_LT(waits, 250) << "of " << kPages * kPage / ColdReads::kLeastAsked << " in equal pieces";
  // The file does not stay in memory.
  int alone = 0;
  while (reads_.note(page_of(alone) * kPage, kPages * kPage, true).empty()) ++alone;
  EXPECT_GE(alone, kPages * kPage / ColdReads::kLeastAsked);
  EXPECT_LT(alone, kPages);
}

TEST_F(ReadAtRandom, ManyAtATimeAskForTheirPagesAloneAtFirst) {
  const auto around = [&](std::int64_t at) {
    return reads_.around({at + 100, at + 200}, kPages * kPage);
  };
  for (std::int64_t i = 0; i < kPages / 64; ++i) EXPECT_EQ(ask_for(page_of(i), around), kPage);
  int asked = 0;
  for (std::int64_t i = kPages / 64; i < kPages; ++i) {
    const bool was_asked = is_asked(page_of(i));
    const std::int64_t length = ask_for(page_of(i), around);
    asked += length > 0 ? 1 : 0;
    EXPECT_EQ(length == 0, was_asked) << i;
  }
  EXPECT_TRUE(are_all_asked());
  EXPECT_LT(asked, 250);
  reads_.begin_anew();
  EXPECT_EQ(around(0), (ByteRange{0, kPage}));
}

}  // namespace
}  // namespace common
