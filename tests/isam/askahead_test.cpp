#include "isam/records/askahead.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "common/coldreads.h"
#include "common/filemap.h"
#include "common/holders.h"
#include "common/io.h"
#include "tests/support/run_program.h"

namespace isam {
namespace {

using Numbers = std::vector<std::int32_t>;
constexpr std::int64_t kSlot = 4096;
constexpr std::int64_t kLargeFile = std::int64_t{1} << 50;  // so that nothing is a large part of it

CopyRun waiting_run() { return {.has_waited = true, .patience = 100'000, .last = 30'000'000}; }

// Scans a file of slots, and tells what is asked for: "2-5" for the third to the fifth slot.
class Scan {
 public:
  explicit Scan(std::int64_t file_size = kLargeFile) : file_size_(file_size) {}

  std::string asked(const Numbers& numbers) {
    std::string ranges;
    ask_for_batch(numbers, kSlot, run, reads_, file_size_, [&](ByteRange range) {
      if (range.empty()) return;
      EXPECT_EQ(range.start % kSlot, 0);
      EXPECT_EQ(range.end % kSlot, 0);
      ranges += std::to_string(range.start / kSlot) + "-" + std::to_string(range.end / kSlot) + " ";
    });
    return ranges;
  }

  CopyRun run = waiting_run();

 private:
  std::int64_t file_size_;
  common::ColdReads reads_;
};

std::string asked_anew(const Numbers& numbers) { return Scan().asked(numbers); }

Numbers from_to(std::int32_t first, std::int32_t last) {
  Numbers numbers;
  const std::int32_t step = first < last ? 1 : -1;
  for (std::int32_t number = first; number != last + step; number += step) {
    numbers.push_back(number);
  }
  return numbers;
}

TEST(AskAhead, JoinsNeighboursOfABatchThatStandsAlone) {
  EXPECT_EQ(asked_anew({3}), "2-3 ");
  EXPECT_EQ(asked_anew({3, 5, 4}), "2-5 ");
  EXPECT_EQ(asked_anew({60000, 59999}), "59998-60000 ");
  EXPECT_EQ(asked_anew({1, 1000, 2}), "0-1 999-1000 1-2 ");
  EXPECT_EQ(asked_anew({1000, 1005, 1011}), "999-1005 1010-1011 ");
  EXPECT_EQ(asked_anew(from_to(1, 5000)), "0-5000 ");
  EXPECT_EQ(asked_anew({INT32_MAX, INT32_MAX - 1000}),
            "2147483646-2147483647 2147482646-2147482647 ");
}

// Batches that follow each other: what is asked for each, while the disk is waited for.
TEST(AskAhead, GoesBeyondBatchesThatFollowEachOther) {
  struct Step {
    const char* what;
    Numbers numbers;
    const char* asked;
  };
  const std::vector<std::vector<Step>> scans = {
      {{"the first", from_to(1001, 1010), "1000-1010 "},
       {"far away", from_to(5001, 5010), "5000-5010 "},
       {"far away again", from_to(1001, 1010), "1000-1010 "},
       {"beside it: as much again", from_to(1011, 1020), "1010-1020 1020-1030 "},
       {"twice as much", from_to(1021, 1030), "1030-1050 "},
       {"half of that is to come", from_to(1031, 1040), ""},
       {"no more than that: twice as much", from_to(1042, 1050), "1050-1090 "},
       {"it turns: from the start", from_to(1049, 1040), "1039-1049 1029-1039 "},
       {"elsewhere", from_to(5001, 5010), "5000-5010 "},
       {"it goes on there: from the start", from_to(5012, 5021), "5011-5021 5021-5031 "},
       {"not together", {5022, 9000}, "5021-5022 8999-9000 "},
       {"a single one", {9001}, "9000-9001 "}},
      {{"backwards", from_to(1010, 1001), "1000-1010 "},
       {"beside it", from_to(1000, 991), "990-1000 980-990 "},
       {"twice as much", from_to(990, 981), "960-980 "}},
      {{"at the start of the file", from_to(35, 28), "27-35 "},
       {"what there is", from_to(27, 14), "13-27 0-13 "},
       {"nothing is left", from_to(13, 1), ""}},
  };
  for (const std::vector<Step>& steps : scans) {
    Scan scan;
    for (const Step& step : steps) EXPECT_EQ(scan.asked(step.numbers), step.asked) << step.what;
  }
}

TEST(AskAhead, AsksForNothingInMemoryAndNeverForMoreThanTheMost) {
  Scan scan;
  scan.run = {};
  EXPECT_EQ(scan.asked(from_to(1, 10)) + scan.asked(from_to(11, 20)), "");
  scan.run.patience = 100;  // batches, if none of them waits
  for (std::int32_t first = 21; first < 99 * 64; first += 64) {
    scan.asked(from_to(first, first + 63));
    EXPECT_LE(scan.run.asked - (first + 63) * kSlot, kMostBeyond);
  }
  EXPECT_EQ(scan.run.beyond, kMostBeyond);
  EXPECT_EQ(scan.asked(from_to(9001, 9010)), "9000-9010 ") << "the last";
  EXPECT_EQ(scan.asked(from_to(9011, 9020)), "");
}

// What was asked for is not asked for again, unless copies wait all the same.
TEST(AskAhead, AsksOnceForWhatLiesAroundRecordsFarApart) {
  constexpr std::int32_t kSlots = 6400;  // of a piece 16
  Scan scan(kSlots * kSlot);
  EXPECT_EQ(scan.asked({1, 21}), "0-1 20-21 ");
  for (std::int32_t i = 1; i < kSlots / 128; ++i) scan.asked({i * 64 + 1, i * 64 + 21});
  EXPECT_EQ(scan.asked({1003, 2003}), "992-1008 2000-2016 ");
  scan.run.has_waited = false;
  EXPECT_EQ(scan.asked({1005, 3005}), "2992-3008 ");
  scan.run.has_waited = true;
  EXPECT_EQ(scan.asked({1005, 3006}), "1004-1005 3005-3006 ");
}

// A file that is not in memory.
class ColdCopies : public testing::Test {
 protected:
  static constexpr std::int32_t kSlots = 512;

  void SetUp() override {
    const std::vector<common::Byte> slot(kSlot, 'a');
    for (int i = 0; i < kSlots; ++i) ASSERT_EQ(common::write_at(file_.get(), slot, i * kSlot), 0);
    ASSERT_EQ(::fsync(file_.get()), 0);
    ::posix_fadvise(file_.get(), 0, 0, POSIX_FADV_DONTNEED);
    map_.look_again(file_.get());
    if (in_memory(0, kSlots) != 0) GTEST_SKIP() << "these files stay in memory";
  }

  void copy(std::int32_t first, std::int32_t last) {
    int sum = 0;
    const Numbers numbers = from_to(first, last);
    EXPECT_TRUE(copy_batch(numbers, kSlot, run_, map_, file_.get(), [&](common::ConstBytes from) {
      for (const std::int32_t number : numbers) {
        sum += from[static_cast<std::size_t>((number - 1) * kSlot)];
      }
    }));
    EXPECT_EQ(sum, 'a' * static_cast<int>(numbers.size()));
  }
  int in_memory(std::int32_t first, std::int32_t end) const {
    const std::size_t length = static_cast<std::size_t>(end - first) * kSlot;
    void* const pages = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, file_.get(), first * kSlot);
    std::vector<unsigned char> present(static_cast<std::size_t>(end - first));
    EXPECT_EQ(::mincore(pages, length, present.data()), 0);
    ::munmap(pages, length);
    return static_cast<int>(std::ranges::count_if(present, [](auto bits) { return bits & 1; }));
  }

  testing_support::TempFolder folder_;
  common::FileHold file_{::open((folder_ / "cold").c_str(), O_RDWR | O_CREAT, 0666)};
  common::FileMap map_;
  CopyRun run_;
};

TEST_F(ColdCopies, HaveWhatFollowsReadOnceOneHasWaited) {
  copy(1, 8);
  EXPECT_TRUE(run_.has_waited);
  copy(9, 24);
  for (int tries = 0; tries < 100 && in_memory(24, 40) < 16; ++tries) ::usleep(2000);
  EXPECT_EQ(in_memory(24, 40), 16);
  copy(25, 40);
  EXPECT_FALSE(run_.has_waited);
  EXPECT_GT(run_.patience, 1000);
}

}  // namespace
}  // namespace isam
