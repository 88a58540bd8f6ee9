#include "common/sorter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <random>

#include "tests/support/between.h"

namespace common {
namespace {

constexpr std::size_t kEntry = 12;
using Entry = std::array<Byte, kEntry>;

std::vector<Entry> random_entries(std::size_t count, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<Entry> entries(count);
  for (std::size_t i = 0; i < count; ++i) {
    // Few distinct prefixes, so that the bytes behind the first eight decide often.
    stlong(static_cast<std::int32_t>(random() % 50), entries[i].data());
    stlong(0, entries[i].data() + 4);
    stlong(static_cast<std::int32_t>(i), entries[i].data() + 8);
  }
  std::shuffle(entries.begin(), entries.end(), random);
  return entries;
}

Sorter::Shape shape(std::size_t memory) {
  return {.entry_size = kEntry,
          .key_size = kEntry,
          .memory = memory,
          .folder = std::filesystem::temp_directory_path().string(),
          .order = {}};
}

std::vector<Entry> sorted_by(Sorter& sorter, const std::vector<Entry>& entries) {
  for (const Entry& entry : entries) EXPECT_EQ(sorter.add(entry.data()), 0);
  EXPECT_EQ(sorter.finish(), 0);
  std::vector<Entry> result;
  while (const Byte* entry = sorter.next()) {
    result.emplace_back();
    std::copy_n(entry, kEntry, result.back().begin());
  }
  EXPECT_EQ(sorter.error(), 0);
  return result;
}

class SorterMemory : public testing::TestWithParam<std::size_t> {};

TEST_P(SorterMemory, GivesEveryEntryInOrder) {
  std::vector<Entry> entries = random_entries(20'000, 7);
  Sorter sorter(shape(GetParam()));
  const std::vector<Entry> result = sorted_by(sorter, entries);
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(result, entries);
}

// In memory, a few runs, many runs of the least size.
INSTANTIATE_TEST_SUITE_P(Sizes, SorterMemory, testing::Values(1 << 20, 200'000, 1));

TEST(Sorter, FollowsAGivenOrder) {
  std::vector<Entry> entries = random_entries(5'000, 8);
  Sorter::Shape backwards = shape(1);
  backwards.order = [](const Byte* a, const Byte* b) { return std::memcmp(b, a, kEntry); };
  Sorter sorter(backwards);
  const std::vector<Entry> result = sorted_by(sorter, entries);
  std::sort(entries.begin(), entries.end(), std::greater<>());
  EXPECT_EQ(result, entries);
}

TEST(Sorter, ReportsWhatTheTemporaryFileRefuses) {
  using testing_support::SystemCall;
  const std::vector<Entry> entries = random_entries(3'000, 9);
  Sorter full(shape(1));
  testing_support::refuse(SystemCall::kWrite, ENOSPC);
  EXPECT_FALSE(
      std::ranges::all_of(entries, [&](const Entry& e) { return full.add(e.data()) == 0; }));
  EXPECT_EQ(errno, ENOSPC);

  Sorter unreadable(shape(1));
  testing_support::stand_between([](SystemCall& call) {
    if (call.kind == SystemCall::kRead) call.count = 0;
    return 0;
  });
  for (const Entry& entry : entries) ASSERT_EQ(unreadable.add(entry.data()), 0);
  EXPECT_EQ(unreadable.finish(), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(unreadable.next(), nullptr);
  EXPECT_EQ(unreadable.error(), EIO);
  testing_support::stand_aside();
}

}  // namespace
}  // namespace common
