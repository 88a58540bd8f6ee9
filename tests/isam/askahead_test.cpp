#include "isam/records/askahead.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace isam {
namespace {

using Numbers = std::vector<std::int32_t>;
constexpr std::int64_t kSlot = 100;

// What is asked for together, but for how it is cut into pieces.
std::string asked(const Numbers& numbers, CopyRun& run) {
  std::string ranges;
  ByteRange joined{-1, -1};
  const auto tell = [&] {
    if (joined.end < 0) return;
    ranges += std::to_string(joined.start) + "-" + std::to_string(joined.end) + " ";
  };
  ask_for_batch(numbers, kSlot, run, [&](ByteRange range) {
    EXPECT_LE(range.end - range.start, kAskedAtOnce);
    if (range.start != joined.end) {
      tell();
      joined.start = range.start;
    }
    joined.end = range.end;
  });
  tell();
  return ranges;
}

std::string asked_anew(const Numbers& numbers) {
  CopyRun run{.has_waited = true, .last = 30'000'000};
  return asked(numbers, run);
}

Numbers from_to(std::int32_t first, std::int32_t last) {
  Numbers numbers;
  const std::int32_t step = first < last ? 1 : -1;
  for (std::int32_t number = first; number != last + step; number += step) {
    numbers.push_back(number);
  }
  return numbers;
}

TEST(AskAhead, JoinsNeighboursOfABatchThatStandsAlone) {
  EXPECT_EQ(asked_anew({3}), "200-300 ");
  EXPECT_EQ(asked_anew({3, 5, 4}), "200-500 ");
  EXPECT_EQ(asked_anew({60000, 59999}), "5999800-6000000 ");
  EXPECT_EQ(asked_anew({1, 1000, 2}), "0-100 99900-100000 100-200 ");
  EXPECT_EQ(asked_anew({1000, 1163, 5000}), "99900-116300 499900-500000 ");
  EXPECT_EQ(asked_anew(from_to(1, 5000)), "0-500000 ");
  EXPECT_EQ(asked_anew({INT32_MAX, INT32_MAX - 1000}),
            "214748364600-214748364700 214748264600-214748264700 ");
}

// Batches that follow each other: what is asked for each, while the disk is waited for.
TEST(AskAhead, GoesBeyondBatchesThatFollowEachOther) {
  struct Step {
    const char* what;
    Numbers numbers;
    const char* asked;
  };
  const std::vector<std::vector<Step>> scans = {
      {{"the first", from_to(1001, 1010), "100000-101000 "},
       {"far away", from_to(5001, 5010), "500000-501000 "},
       {"far away again", from_to(1001, 1010), "100000-101000 "},
       {"beside it: as much again", from_to(1011, 1020), "101000-103000 "},
       {"twice as much", from_to(1021, 1030), "102000-105000 "},
       {"half of that is to come", from_to(1031, 1040), "103000-104000 "},
       {"no more than that: twice as much", from_to(1042, 1050), "104100-109000 "},
       {"it turns: from the start", from_to(1049, 1040), "103900-104900 102900-103900 "},
       {"elsewhere", from_to(5001, 5010), "500000-501000 "},
       {"it goes on there: from the start", from_to(5012, 5021), "501100-503100 "},
       {"not together", {5022, 9000}, "502100-502200 899900-900000 "},
       {"a single one", {9001}, "900000-900100 "}},
      {{"backwards", from_to(1010, 1001), "100000-101000 "},
       {"beside it", from_to(1000, 991), "99000-100000 98000-99000 "},
       {"twice as much", from_to(990, 981), "98000-99000 96000-98000 "}},
      {{"at the start of the file", from_to(35, 28), "2700-3500 "},
       {"what there is", from_to(27, 14), "1300-2700 0-1300 "}},
  };
  for (const std::vector<Step>& scan : scans) {
    CopyRun run{.has_waited = true, .last = 30'000'000};
    for (const Step& step : scan) EXPECT_EQ(asked(step.numbers, run), step.asked) << step.what;
  }
}

TEST(AskAhead, AsksForNothingInMemoryAndNeverForMoreThanTheMost) {
  CopyRun run;
  EXPECT_EQ(asked(from_to(1, 10), run) + asked(from_to(11, 20), run), "");
  run.has_waited = true;
  for (std::int32_t first = 21; first < 400'000; first += 64) {
    asked(from_to(first, first + 63), run);
    EXPECT_LE(run.asked - (first + 63) * kSlot, kMostBeyond);
  }
  EXPECT_EQ(run.beyond, kMostBeyond);
}

TEST(AskAhead, ACopyMayTakeAsLongAsItsPagesAndBytes) {
  using std::chrono::microseconds;
  EXPECT_EQ(longest_copy(Numbers{1}, 1000), microseconds(150 + 4 + 1));
  EXPECT_EQ(longest_copy(from_to(1, 40), 1000), microseconds(150 + 10 * 4 + 40));
  EXPECT_EQ(longest_copy(from_to(40, 1), 1000), microseconds(150 + 10 * 4 + 40));
  EXPECT_EQ(longest_copy(Numbers{1, 101, 301}, 1000), microseconds(150 + 3 * 4 + 3));
  EXPECT_EQ(longest_copy(Numbers{1, 3}, 32000), microseconds(150 + (8 + 9) * 4 + 64));
}

}  // namespace
}  // namespace isam
