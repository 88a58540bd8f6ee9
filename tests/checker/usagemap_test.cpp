#include "checker/usagemap.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace checker {
namespace {

// A map and its model take the same random operations, around chunk and word borders.
TEST(UsageMap, BehavesLikeASetOfNumbers) {
  constexpr std::int32_t kHighest = 100'000;
  const std::vector<std::int32_t> borders = {1,      63,     64,     32'767, 32'768,  32'769,
                                             65'535, 65'536, 98'303, 98'304, kHighest};
  std::mt19937 random(3);
  const auto number = [&] {
    if (random() % 2 == 0) return borders[random() % borders.size()];
    return static_cast<std::int32_t>(random() % kHighest) + 1;
  };
  UsageMap map;
  UsageMap other;
  map.reset(kHighest);
  other.reset(kHighest);
  std::set<std::int32_t> model;
  std::set<std::int32_t> other_model;
  for (int i = 0; i < 4'000; ++i) {
    const std::int32_t n = number();
    const auto way = random() % 8;
    if (way == 0) {
      EXPECT_EQ(map.clr_bit(n), model.erase(n) == 1);
    } else if (way == 1) {
      other.set_bit(n);
      other_model.insert(n);
    } else if (way == 2 && i % 50 == 0) {
      map.ormap(other);
      model.insert(other_model.begin(), other_model.end());
    } else if (way == 3 && i % 200 == 0) {
      const std::int32_t last = std::min(kHighest, n + 70'000);
      map.setmap(n, last);
      for (std::int32_t k = n; k <= last; ++k) model.insert(k);
    } else if (way == 4 && i % 500 == 0) {
      map.clrmap();
      model.clear();
    } else if (way > 4) {
      EXPECT_EQ(map.set_bit(n), !model.insert(n).second);
    }
    ASSERT_EQ(map.cntmap(), static_cast<std::int32_t>(model.size()));
    const std::int32_t at = number();
    const std::int32_t last = number();
    ASSERT_EQ(map.tstbit(at), model.contains(at));
    const auto from = model.lower_bound(at);
    const auto behind = model.upper_bound(at);
    ASSERT_EQ(map.next_set(at), from == model.end() ? 0 : *from);
    ASSERT_EQ(map.previous_set(at), behind == model.begin() ? 0 : *std::prev(behind));
    std::int32_t clear = at;
    while (clear > 0 && model.contains(clear)) --clear;
    ASSERT_EQ(map.previous_clear(at), clear);
    ASSERT_EQ(map.count_set(at, last),
              at > last ? 0 : std::distance(from, model.upper_bound(last)));
  }
}

TEST(UsageMap, CoversTheGreatestNumber) {
  UsageMap map;
  map.reset(INT32_MAX);
  map.setmap(1, INT32_MAX);
  EXPECT_EQ(map.cntmap(), INT32_MAX);
  EXPECT_TRUE(map.clr_bit(2'000'000'000));
  EXPECT_EQ(map.previous_clear(INT32_MAX), 2'000'000'000);
  EXPECT_EQ(map.previous_clear(1'999'999'999), 0);
  EXPECT_EQ(map.next_set(INT32_MAX), INT32_MAX);
}

}  // namespace
}  // namespace checker
