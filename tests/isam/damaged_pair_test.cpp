// Public calls on pairs whose dictionary, descriptions, trees or records are not what they should
// be.
#include "tests/support/damaged_pair.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "isam.h"
#include "tests/support/descriptions.h"
#include "tests/support/pair_builder.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

constexpr std::ptrdiff_t kNode = 1024;
constexpr int kPageLimit = 1019, kLength = 20, kKey = 4;

void numbered(int number, Image& record) { put4(record.data(), number); }

class DamagedPair : public testing::Test {
 protected:
  ~DamagedPair() override {
    ::iscleanup();
    ::isvclose(0);
  }

  // Records 1 to `records`, each with its number as the key.
  BuiltPair build(int records, const std::set<int>& deleted = {}) {
    BuiltPair pair = build_pair({.dup_width = 4,
                                 .record_length = kLength,
                                 .keys = {{0, {{0, kKey, kLong}}}},
                                 .records = records,
                                 .deleted = deleted,
                                 .make_record = numbered},
                                base_);
    index_ = read_file(base_ + ".idx");
    return pair;
  }
  Byte* node(std::int32_t number) {
    const std::size_t end = static_cast<std::size_t>(number * kNode);
    if (index_.size() < end) index_.resize(end);
    return &index_[end - static_cast<std::size_t>(kNode)];
  }
  void save() { write_file(base_ + ".idx", index_); }
  [[nodiscard]] int open(int mode) const { return ::isopen(base_.c_str(), mode); }
  // A tree node with these pointers under keys that begin with 1.
  void put_node(std::int32_t number, int level, const std::vector<std::int32_t>& pointers,
                int step = 1) {
    Byte* const page = node(number);
    std::fill_n(page, kNode, Byte{0});
    int used = 2;
    int key = 1;
    for (const std::int32_t pointer : pointers) {
      put4(page + used, std::exchange(key, key + step));
      put4(page + used + kKey, pointer);
      used += kKey + 4;
    }
    put2(page, used);
    page[kNode - 2] = static_cast<Byte>(level);
    put4(&index_[dict::kNextNode], std::max(number, get4(&index_[dict::kNextNode])));
  }
  static void expect_damage(int result) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(::iserrno, ISECORRUPT);
  }

  // Nodes of so many upper levels whose every item leads to the next, and a leaf whose items are of
  // one record. All have the key 1.
  void share_children(const BuiltPair& pair, int levels, int record, std::size_t items = 120) {
    std::int32_t number = pair.indexes[0].root;
    for (std::int32_t next = pair.last_node + 1; levels >= 0; --levels, number = next++) {
      put_node(number, levels, std::vector(items, levels > 0 ? next : record), 0);
    }
    save();
  }

  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  Image index_;
};

// A walk that took every way through the tree would go on for years.
TEST_F(DamagedPair, WalksOverSharedChildrenEnd) {
  std::array<char, kLength> record{};
  share_children(build(2, {2}), 18, 2);
  int isfd = open(ISINPUT | ISMANULOCK);
  for (const int mode : {RD_FIRST, RD_LAST}) expect_damage(::isread(isfd, record.data(), mode));
  ::isclose(isfd);
  isfd = open(ISINOUT | ISMANULOCK);
  expect_damage(::isdelrec(isfd, 1));
  ::isclose(isfd);

  share_children(build(2, {2}), 4, 1);
  keydescr key = key_of({{0, kKey, KT_LONG}});
  isfd = open(ISINOUT | ISEXCLLOCK);
  expect_damage(::iscluster(isfd, &key));
}

TEST_F(DamagedPair, TwentyLevelsAreTheMost) {
  for (const int levels : {18, 19, 20, 21}) {
    SCOPED_TRACE(levels);
    share_children(build(1), levels - 1, 1, 1);
    std::array<char, kLength> record{};
    const int isfd = open(ISINOUT | ISEXCLLOCK);
    EXPECT_EQ(::isread(isfd, record.data(), RD_FIRST), levels <= 20 ? 0 : -1);
    EXPECT_EQ(::iserrno, levels <= 20 ? 0 : ISECORRUPT);
    ::stlong(0, record.data());
    EXPECT_EQ(::iswrite(isfd, record.data()), levels < 20 ? 0 : -1);
    EXPECT_EQ(::iserrno, levels < 20 ? 0 : levels == 20 ? ISETOODEEP : ISECORRUPT);
    ::isclose(isfd);
  }
}

// A node without items below the root, a leaf beside an upper node, a node that is its own child.
TEST_F(DamagedPair, TreesThatAreNoneAreLeft) {
  enum { kEmpty, kUpper, kOwnChild };
  for (const int what : {kEmpty, kUpper, kOwnChild}) {
    SCOPED_TRACE(what);
    const BuiltPair pair = build(1);
    const std::int32_t root = pair.indexes[0].root;
    const std::int32_t leaf = pair.last_node + 1;
    put_node(leaf, 0, {1});
    put_node(leaf + 1, what == kUpper ? 1 : 0,
             what == kUpper ? std::vector{leaf} : std::vector<std::int32_t>{});
    put_node(root, 1, {what == kOwnChild ? root : leaf, what == kOwnChild ? root : leaf + 1});
    save();
    const int isfd = open(ISINOUT | ISEXCLLOCK);
    std::array<char, kLength> record{};
    if (what == kOwnChild) {
      ::stlong(1, record.data());
      for (const int mode : {RD_EQUAL, RD_GREAT})
        expect_damage(::isread(isfd, record.data(), mode));
    } else {
      EXPECT_EQ(::isread(isfd, record.data(), RD_FIRST), 0);
      expect_damage(::isread(isfd, record.data(), RD_NEXT));
    }
    if (what != kUpper) {
      expect_damage(::isread(isfd, record.data(), RD_LAST));
      ::stlong(2, record.data());
      expect_damage(::iswrite(isfd, record.data()));
    }
    ::isclose(isfd);
  }
}

// Whatever is in its files, every call ends and tells whether it failed.
TEST_F(DamagedPair, IsSurvivedByEveryCall) {
  constexpr int kPairs = 200, kCalls = 60, kMostRecords = 80;
  std::mt19937 random(1);
  const auto any = [&](unsigned below) { return static_cast<int>(random() % below); };
  std::string record(5000, '\0');
  keydescr key{};
  int isfd = -1;
  const auto walk = [&] {
    int result = 0;
    const int mode = any(2) == 0 ? RD_NEXT : RD_PREV;
    for (int i = 0; i < 300 && result == 0; ++i) result = ::isread(isfd, record.data(), mode);
    return result;
  };
  const std::function<int()> calls[] = {
      walk,
      [&] { return ::isstart(isfd, &key, 0, record.data(), any(8)); },
      [&] { return ::iswrcurr(isfd, record.data()); },
      [&] { return ::isrewrec(isfd, any(99), record.data()); },
      [&] { return ::isdelrec(isfd, any(99)); },
      [&] { return any(9) == 0 ? ::isdelindex(isfd, &key) : ::isflush(isfd); }};
  std::map<int, int> ends;  // errors, and how often
  for (int number = 0; number < kPairs; ++number) {
    write_damaged_pair(number, base_, kMostRecords);
    isfd = open(ISINOUT | ISANYLENGTH | (any(2) == 0 ? ISEXCLLOCK : ISMANULOCK));
    for (int i = 0; isfd >= 0 && i < kCalls; ++i) {
      if (any(2) == 0) std::generate_n(record.begin(), 50, random);
      ::iskeyinfo(isfd, &key, any(6));
      const int result = calls[any(std::size(calls))]();
      EXPECT_EQ(result < 0, ::iserrno != 0);
      ++ends[::iserrno];
    }
    ::isclose(isfd);
  }
  EXPECT_GT(ends[0], kPairs * kCalls / 5);
  EXPECT_GT(ends[ISECORRUPT], kPairs);
}

// Its files stay open without a user, and get other contents.
TEST_F(DamagedPair, TakesAnotherDictionaryWhileItIsIdle) {
  ::isvclose(10);
  for (const int node_size : {1024, 512, 300, 1024}) {
    SCOPED_TRACE(node_size);
    constexpr int kRecords = 700;
    build_pair({.node_size = node_size,
                .record_length = kLength + node_size / 100,
                .keys = {{0, {{0, kKey, kLong}}}},
                .records = kRecords,
                .make_record = numbered},
               base_);
    const int isfd = open(ISINOUT | ISMANULOCK);
    ASSERT_GE(isfd, 0) << ::iserrno;
    std::array<char, 100> record{};
    for (int number = 1; number <= kRecords; ++number) {
      ASSERT_EQ(::isread(isfd, record.data(), RD_NEXT), 0) << number << ' ' << ::iserrno;
      ASSERT_EQ(::ldlong(record.data()), number);
    }
    ASSERT_EQ(::isclose(isfd), 0);
  }
}

TEST_F(DamagedPair, MayHaveSoManyDescriptionsAndNoMore) {
  constexpr int kMost = 32767, kSize = 7, kInNode = (kPageLimit - 4 - 6) / kSize;
  for (const int count : {kMost, kMost + 1}) {
    const BuiltPair pair = build(1);
    std::int32_t number = pair.key_nodes[0];
    std::int32_t last = pair.last_node;
    for (int left = count; left > 0;) {
      const int here = std::min(left, kInNode);
      left -= here;
      const std::int32_t next = left > 0 ? ++last : 0;
      Byte* const page = node(number);
      std::fill_n(page, kNode, Byte{0});
      put2(page, 6 + here * kSize);
      put4(page + 2, next);
      for (int i = 0; i < here; ++i) {
        put2(page + 6 + std::ptrdiff_t{i} * kSize, kSize);  // a key without parts
      }
      page[kNode - 3] = 0xFF;
      page[kNode - 2] = 0x7E;
      number = next;
    }
    put4(&index_[dict::kNextNode], last);
    save();
    const int isfd = open(ISINPUT | ISMANULOCK);
    EXPECT_EQ(isfd >= 0, count == kMost);
    EXPECT_EQ(::iserrno, count == kMost ? 0 : ISECORRUPT);
    ::iscleanup();
  }
}

}  // namespace
}  // namespace testing_support
