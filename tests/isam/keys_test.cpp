#include "isam/keys/keys.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <random>
#include <string>

#include "tests/isam/test_pair.h"
#include "tests/support/descriptions.h"

namespace isam {
namespace {

using testing_support::Image;
using testing_support::key_of;

TEST(Keys, LegalityOfADescription) {
  constexpr int kRecord = 200;
  struct Case {
    const char* what;
    keydescr k;
    int keylen;  // -1: illegal
  };
  const Case cases[] = {
      {"no parts", key_of({}), -1},
      {"eight parts of 120 bytes", key_of(std::vector<keypart>(8, {0, 15, KT_CHAR})), 120},
      {"121 bytes", key_of({{0, 121, KT_CHAR}}), -1},
      {"up to the record's end", key_of({{195, 5, KT_CHAR}}), 5},
      {"one byte further", key_of({{196, 5, KT_CHAR}}), -1},
      {"before the record", key_of({{-1, 5, KT_CHAR}}), -1},
      {"negative length", key_of({{5, -1, KT_CHAR}}), -1},
      {"no bytes at the end", key_of({{200, 0, KT_CHAR}}), 0},
      {"overlapping parts", key_of({{0, 8, KT_DOUBLE}, {4, 8, KT_CHAR | KT_DESC}}), 16},
      {"integer of four bytes", key_of({{0, 4, KT_INT}}), -1},
      {"long of four bytes", key_of({{0, 4, KT_LONG | KT_DESC}}), 4},
      {"float of eight bytes", key_of({{0, 8, KT_FLOAT}}), -1},
      {"type 5", key_of({{0, 4, 5}}), -1},
      {"type 8", key_of({{0, 4, 8}}), -1},
      {"type 17", key_of({{0, 4, 17}}), -1},
      {"collated", key_of({{0, 4, KT_COLL7}, {0, 4, KT_LOCALE}}), 8},
  };
  for (const Case& c : cases) {
    keydescr k = c.k;
    clear_errors();
    EXPECT_EQ(kylegal(k, kRecord), c.keylen < 0 ? -1 : 0) << c.what;
    EXPECT_EQ(iserrno, c.keylen < 0 ? kBadKey : 0) << c.what;
    EXPECT_TRUE(c.keylen < 0 || k.keylen == c.keylen) << c.what;
  }
  keydescr nine = key_of({});
  nine.nparts = 9;
  EXPECT_EQ(kylegal(nine, kRecord), -1);
}

template <typename Number>
void expect_number_order(int type) {
  using Limits = std::numeric_limits<Number>;
  // Groups of equals, in order.
  const std::vector<std::vector<Number>> groups = {
      {-Limits::infinity()},
      {Limits::lowest()},
      {-1},
      {-Limits::denorm_min()},
      {Number{-0.0}, 0},
      {Limits::denorm_min()},
      {1},
      {Limits::max()},
      {Limits::infinity()},
      {Limits::quiet_NaN(), -Limits::quiet_NaN(), Limits::signaling_NaN()}};
  std::vector<std::pair<Image, int>> values = {{Image(sizeof(Number), 0xFF), -1}};  // null
  for (std::size_t group = 0; group < groups.size(); ++group) {
    for (const Number value : groups[group]) {
      Image bytes(sizeof value);
      std::memcpy(bytes.data(), &value, sizeof value);
      values.emplace_back(bytes, static_cast<int>(group));
    }
  }
  for (const bool descending : {false, true}) {
    const KeyOrder order{key_of(
        {{0, sizeof(Number), static_cast<std::int16_t>(descending ? type | KT_DESC : type)}})};
    EXPECT_FALSE(order.bytewise());
    for (const auto& [a, rank_a] : values) {
      for (const auto& [b, rank_b] : values) {
        const int expected = (rank_a > rank_b) - (rank_a < rank_b);
        EXPECT_EQ(order.compare(a.data(), b.data()), descending ? -expected : expected)
            << rank_a << " and " << rank_b;
      }
    }
  }
}

TEST(KeyOrder, NullsNumbersAndWhatIsNone) {
  expect_number_order<double>(KT_DOUBLE);
  expect_number_order<float>(KT_FLOAT);
}

// The first differing byte tells the order of bytes and integers; it is that of the whole.
TEST(KeyOrder, TheFirstDifferingByteDecides) {
  const KeyOrder order{key_of({{0, 3, KT_CHAR},
                               {0, 2, KT_INT},
                               {0, 0, KT_CHAR},
                               {0, 4, KT_LONG | KT_DESC},
                               {0, 2, KT_CHAR | KT_DESC},
                               {0, 2, KT_INT | KT_DESC}})};
  ASSERT_TRUE(order.bytewise());
  std::mt19937 random(1);
  for (int i = 0; i < 3000; ++i) {
    Image a(13);
    for (Byte& byte : a) byte = static_cast<Byte>(random());
    Image b = a;
    const auto at = static_cast<int>(random() % a.size());
    for (std::size_t k = static_cast<std::size_t>(at); k < b.size(); ++k) {
      b[k] = static_cast<Byte>(random());
    }
    const auto index = static_cast<std::size_t>(at);
    if (a[index] == b[index]) continue;
    const int whole = order.compare(a.data(), b.data());
    const int by_byte = order.compare_at(at, a[index], b[index]);
    ASSERT_EQ(whole < 0, by_byte < 0) << at;
    ASSERT_NE(by_byte, 0);
  }
}

// A key's first bytes as a number order as the keys do; what lies behind a short key is none of it.
TEST(KeyOrder, TheFirstBytesDecideAsANumber) {
  const std::initializer_list<std::initializer_list<keypart>> keys = {
      {{0, 3, KT_CHAR}, {0, 2, KT_INT | KT_DESC}, {0, 0, KT_CHAR}, {0, 4, KT_LONG}},
      {{0, 2, KT_CHAR | KT_DESC}, {0, 4, KT_LONG | KT_DESC}, {0, 20, KT_CHAR}},
      {{0, 4, KT_LONG}},
      {{0, 7, KT_CHAR}},
      {{0, 8, KT_CHAR}}};
  std::mt19937 random(2);
  for (const auto& parts : keys) {
    const KeyOrder order{key_of(parts)};
    ASSERT_TRUE(order.has_leading());
    int length = 0;
    for (const keypart& part : parts) length += part.length;
    for (int i = 0; i < 3000; ++i) {
      Image a(26);
      for (Byte& byte : a) byte = static_cast<Byte>(random());
      Image b = a;
      const std::size_t at = random() % 12;
      for (std::size_t k = at; k < b.size(); ++k) b[k] = static_cast<Byte>(random());
      const std::uint64_t left = order.leading(a.data());
      const std::uint64_t right = order.leading(b.data());
      const auto known = static_cast<std::size_t>(std::min(length, 8));
      ASSERT_EQ(left == right, std::memcmp(a.data(), b.data(), known) == 0);
      if (left == right) continue;
      ASSERT_EQ(left < right, order.compare(a.data(), b.data()) < 0);
    }
  }
  EXPECT_FALSE(KeyOrder{key_of({{0, 3, KT_CHAR}})}.has_leading());
  EXPECT_FALSE(KeyOrder{key_of({{0, 4, KT_FLOAT}})}.has_leading());
}

TEST(KeyOrder, PartialAndCollatedKeys) {
  const KeyOrder order{key_of({{0, 2, KT_COLL1}, {0, 4, KT_CHAR}, {0, 2, KT_INT}})};
  const auto compare = [&](const std::string& a, const std::string& b, int length) {
    return order.compare(reinterpret_cast<const Byte*>(a.data()),
                         reinterpret_cast<const Byte*>(b.data()), length);
  };
  EXPECT_EQ(compare("xxabcd01", "yyabcd01", 0), 0);  // a collated part decides nothing
  EXPECT_EQ(compare("xxabcd01", "xxabxd01", 4), 0);
  EXPECT_LT(compare("xxabcd01", "xxabxd01", 5), 0);
  EXPECT_LT(compare("xxabcd01", "xxabcd02", 7), 0);  // an integer is compared whole
}

class KeyDescriptions : public testing::Test {
 protected:
  ~KeyDescriptions() override { ::iscleanup(); }

  // Keys of one byte at different places: nodes of 128 bytes hold nine of them.
  static keydescr nth(int i) { return key_of({{static_cast<std::int16_t>(i), 1, KT_CHAR}}); }

  void build(int count) {
    testing_support::PairSpec spec{.node_size = 128, .record_length = 40, .keys = {}, .records = 0};
    for (int i = 0; i < count; ++i) spec.keys.push_back({0, {{i, 1}}});
    build_pair(spec, base_);
    isfd_ = ::isopen(base_.c_str(), ISINOUT | ISEXCLLOCK);
    ASSERT_GE(isfd_, 0);
  }

  testing_support::TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  int isfd_ = -1;
};

TEST_F(KeyDescriptions, AFailedAdditionChangesNothing) {
  build(9);
  for (const bool one : {false, true}) {
    // No node, or one: the tenth description needs one for its root and one for itself.
    const testing_support::ScarceNodes scarce{one};
    keydescr k = nth(9);
    EXPECT_EQ(::isaddindex(isfd_, &k), -1);
    EXPECT_EQ(iserrno, kCorrupted);
    EXPECT_TRUE(scarce.untouched());
  }
  ::isclose(isfd_);
  const testing_support::Walk walk = testing_support::walk_pair(base_);
  EXPECT_EQ(walk.problems, std::vector<std::string>{});
  EXPECT_EQ(walk.indexes.size(), 9U);
}

TEST_F(KeyDescriptions, MalformedChainsAreRefused) {
  build(12);
  const Image sound = testing_support::read_file(base_ + ".idx");
  constexpr std::size_t kNode = 128;  // node 2
  struct Case {
    const char* what;
    std::size_t at;
    int value;
    bool whole_chain;  // otherwise only fetching the third is refused
  };
  constexpr std::size_t kThird = kNode + 6 + 24;
  const Case cases[] = {
      {"size below the head's", kThird, 6, true},
      {"size between parts", kThird, 13, true},
      {"nine parts", kThird, 52, true},
      {"size past the used bytes", kThird, 127, true},
      {"used bytes past the kind byte", kNode, 128, true},
      {"chain that loops", kNode + 4, 2, true},
      {"chain past the file", kNode + 4, 30'000, true},
      {"part past the record", kThird + 9, 40, false},
      {"part longer than a key", kThird + 7, 121, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Image damaged = sound;
    testing_support::put2(&damaged[c.at], c.value);
    testing_support::write_file(base_ + ".idx", damaged);
    keydescr k = nth(20);
    const auto expect_refused = [&](int result) {
      EXPECT_EQ(result, -1);
      EXPECT_EQ(iserrno, kCorrupted);
      bfignor(*filep);
    };
    bfignor(*filep);
    if (c.whole_chain) {
      expect_refused(::iststindex(isfd_, &k));
      expect_refused(::iskeyinfo(isfd_, &k, 20));
      k = nth(20);
      expect_refused(::isaddindex(isfd_, &k));
      expect_refused(::isdelindex(isfd_, &k));
    } else {
      expect_refused(::iskeyinfo(isfd_, &k, 3));
    }
    EXPECT_EQ(testing_support::read_file(base_ + ".idx"), damaged);
  }
}

}  // namespace
}  // namespace isam
