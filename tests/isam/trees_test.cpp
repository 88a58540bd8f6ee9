// What calls leave in the trees of a pair, and that a call which fails within one leaves nothing.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "isam.h"
#include "isam/tree/btree.h"
#include "tests/isam/test_pair.h"
#include "tests/support/pair_builder.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

constexpr int kLength = 20;
const PartSpec kText{0, kLength, kChar}, kNumber{0, 4, kLong};

class Trees : public testing::Test {
 protected:
  ~Trees() override { ::iscleanup(); }

  // An exclusive open of an empty pair with this key.
  void build(const PartSpec& part, int flags = 0, int node_size = 128, int dup_width = 2) {
    text_ = part.type == kChar;
    pair_ = build_pair({.node_size = node_size,
                        .dup_width = dup_width,
                        .record_length = kLength,
                        .keys = {{flags, {part}}},
                        .records = 0},
                       base_);
    open();
  }
  void open() { isfd_ = ::isopen(base_.c_str(), ISINOUT | ISEXCLLOCK); }
  int write(std::string text) const {
    text.resize(kLength, ' ');
    return ::iswrite(isfd_, text.data());
  }
  int write(int number) const {
    std::string key = std::to_string(100'000 + number);
    if (!text_) ::stlong(number, key.data());
    return write(key);
  }
  void write_in_order(int first, int count) const {
    for (int number = first; number < first + count; ++number) ASSERT_EQ(write(number), 0);
  }
  // The index as it is, which is sound.
  WalkedIndex index() const {
    EXPECT_EQ(::isflush(isfd_), 0);
    const Walk walk = walk_pair(base_);
    EXPECT_EQ(walk.problems, std::vector<std::string>{});
    EXPECT_EQ(walk.untidy, std::vector<std::string>{});
    return walk.indexes.at(0);
  }
  // Gives the items of the root another duplicate number, and opens the pair again.
  void set_root_numbers(int width, int number) {
    ::isclose(isfd_);
    Image bytes = read_file(base_ + ".idx");
    Byte* const root = &bytes[static_cast<std::size_t>(pair_.indexes[0].root - 1) * 128];
    for (int at = 2 + 4; at < get2(root); at += 4 + width + 4) {
      width == 2 ? put2(root + at, number) : put4(root + at, number);
    }
    write_file(base_ + ".idx", bytes);
    open();
  }
  // Shared beginnings, trailing blanks.
  std::string any_text() {
    static const std::string starts[] = {"", "north", "north-east by", "south"};
    std::string text = starts[random_() % 4];
    for (auto letters = random_() % 7; letters > 0; --letters) text += "ab c"[random_() % 4];
    return text;
  }

  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  BuiltPair pair_;
  std::mt19937 random_{11};
  int isfd_ = -1;
  bool text_ = true;
};

TEST_F(Trees, AscendingInsertionFillsNodes) {
  build(kText, 0, 1024);
  write_in_order(0, 4000);
  std::vector<int> full(4000 / 42, 42);
  full.push_back(4000 % 42);
  EXPECT_EQ(index().leaves, full);
  EXPECT_EQ(index().levels, 3);
  ::isclose(isfd_);
  // The last key of an upper node is made to repeat the one before it.
  build(kText, KF_DCOMPRESS);
  write_in_order(0, 18);
  EXPECT_EQ(index().levels, 2);
  const Image bytes = read_file(base_ + ".idx");
  const Byte* const root = &bytes[static_cast<std::size_t>(pair_.indexes[0].root - 1) * 128];
  EXPECT_EQ(get2(root) % (kLength + 4), 2 + 4);
}

TEST_F(Trees, AFullNodeSplitsAtHalfItsItemArea) {
  build(kText, 0, 1024);
  write_in_order(0, 42);
  EXPECT_EQ(index().levels, 1);
  ASSERT_EQ(write("1000005"), 0);
  // The first item that ends at or beyond 509 of 43 * 24 bytes is the 22nd.
  EXPECT_EQ(index().leaves, (std::vector<int>{22, 21}));
}

// Where trailing blanks are stored, an item takes none of them over from one that repeats its key:
// it is stored anew when a repeat comes before it or goes.
TEST_F(Trees, WhatStandsBehindARepeatIsStoredAsItMustBe) {
  for (const bool cuts_blanks : {false, true}) {
    build(kText, KF_DUPS | KF_DCOMPRESS | KF_LCOMPRESS | (cuts_blanks ? KF_TCOMPRESS : 0), 1024);
    const int counts = cuts_blanks ? 2 : 1;
    const int first = counts + (cuts_blanks ? 2 : kLength) + 2 + 4;
    const auto leading_of_last = [&](int repeats) {
      index();
      const Image bytes = read_file(base_ + ".idx");
      const auto root = static_cast<std::size_t>(pair_.indexes[0].root - 1) * 1024;
      return int{bytes[root + 2 + static_cast<std::size_t>(first + repeats * (2 + 4))]};
    };
    ASSERT_EQ(write("ab"), 0);
    ASSERT_EQ(write("ab    x"), 0);
    EXPECT_EQ(leading_of_last(0), cuts_blanks ? 2 : 6);
    for (int repeats = 1; repeats < 4; ++repeats) {
      ASSERT_EQ(write("ab"), 0);
      EXPECT_EQ(leading_of_last(repeats), 2);
    }
    for (int repeats = 2; repeats >= 0; --repeats) {
      ASSERT_EQ(::isdelrec(isfd_, 3 + repeats), 0);
      EXPECT_EQ(leading_of_last(repeats), cuts_blanks || repeats > 0 ? 2 : 6);
    }
    ::isclose(isfd_);
  }
}

TEST_F(Trees, DuplicateNumbersThatNoLongerFitAreRefused) {
  for (const auto& [width, greatest] : {std::pair{2, 65'535}, {4, INT32_MAX}}) {
    build(kNumber, KF_DUPS, 128, width);
    ASSERT_EQ(write(3), 0);
    set_root_numbers(width, greatest - 1);
    ASSERT_EQ(write(3), 0);
    // Also when the equal item ends the leaf before.
    for (int key = 3; key < 40; ++key) EXPECT_EQ(write(key), key == 3 ? -1 : 0);
    for (int key = -40; key <= 3; ++key) EXPECT_EQ(write(key), key == 3 ? -1 : 0);
    EXPECT_EQ(::iserrno, ISEDUPLICATE);
    index();
    ::isclose(isfd_);
  }
}

// A separator gives the last item of its upper node its key; that item keeps its duplicate number,
// and the next equal key goes above it.
TEST_F(Trees, DuplicateNumbersGoAboveTheLastItemsOfUpperNodes) {
  struct Case {
    int flags;
    int before;  // equal items so that two of the next key fill the second leaf
    std::vector<std::int64_t> numbers;
  };
  for (const auto& [flags, before, numbers] :
       {Case{KF_DUPS, 18, {0, 1, 2, 10, 11}}, Case{KF_DUPS | KF_DCOMPRESS, 26, {0, 1, 2, 14, 15}},
        Case{KF_DUPS | KF_LCOMPRESS, 22, {0, 1, 2, 12, 13}}}) {
    SCOPED_TRACE(flags);
    build(kNumber, flags, 128, 4);
    for (int i = 0; i < before; ++i) ASSERT_EQ(write(5), 0);
    for (std::size_t i = 0; i < numbers.size(); ++i) ASSERT_EQ(write(6), 0);
    const std::vector<std::int64_t> stored = index().numbers;
    EXPECT_EQ((std::vector<std::int64_t>{stored.begin() + before, stored.end()}), numbers);
    ::isclose(isfd_);
  }
}

// ... and above that of the item before in the leaf and that of the upper node, whichever is
// greater.
TEST_F(Trees, DuplicateNumbersGoAboveTheItemBefore) {
  build(kNumber, KF_DUPS, 128, 4);
  for (int i = 0; i < 10; ++i) ASSERT_EQ(write(5), 0);  // a full leaf
  ASSERT_EQ(write(6), 0);
  set_root_numbers(4, 0);
  ASSERT_EQ(write(5), 0);
  set_root_numbers(4, INT32_MAX);
  EXPECT_EQ(write(5), -1);
  ::isclose(isfd_);
  EXPECT_EQ(walk_pair(base_).indexes[0].numbers.at(10), 10);
}

// ... of whatever item of the upper node, also where the last one repeats a key with a lower
// number.
TEST_F(Trees, DuplicateNumbersGoAboveAllOfAnUpperNode) {
  for (const int flags : {int{KF_DUPS}, KF_DUPS | KF_DCOMPRESS}) {
    build(kNumber, flags, 128, 4);
    for (int i = 0; i < 40; ++i) ASSERT_EQ(write(5), 0);
    ASSERT_GT(index().leaves.size(), 2U);
    ::isclose(isfd_);
    Image bytes = read_file(base_ + ".idx");
    Byte* const second = &bytes[static_cast<std::size_t>(pair_.indexes[0].root - 1) * 128 + 2 + 12];
    put4(second + (flags == KF_DUPS ? 4 : 0), 1000);
    write_file(base_ + ".idx", bytes);
    open();
    ASSERT_EQ(write(5), 0);
    ::isclose(isfd_);
    EXPECT_EQ(walk_pair(base_).indexes[0].numbers.back(), 1001) << flags;
  }
}

// What is no number is equal in whatever bytes: the item behind a deleted one takes its own again.
TEST_F(Trees, EqualNumbersKeepTheirBytes) {
  build({0, 8, kDouble}, KF_DUPS | KF_LCOMPRESS, 1024);
  for (int i = 0; i < 30; ++i) {
    ASSERT_EQ(write(std::string{static_cast<char>(i / 2 % 3), 0, 0, 0, 0, 0, '\xF8', '\x7F'}), 0);
  }
  for (int number = 29; number > 0; number -= 4) {
    ASSERT_EQ(::isdelrec(isfd_, number), 0);
    index();
  }
}

// Also when a split of several levels finds a node for the first one only.
TEST_F(Trees, AWriteThatFindsNoNodeChangesNothing) {
  build(kText, KF_DUPS | KF_LCOMPRESS);
  int failures = 0;
  for (int i = 0; i < 1500; ++i) {
    const std::string key = any_text();
    if (i > 0) {
      const ScarceNodes scarce{i % 2 == 0};
      if (write(key) == 0) continue;
      ASSERT_EQ(::iserrno, ISECORRUPT);
      ASSERT_TRUE(scarce.untouched());
    }
    if (++failures % 20 == 0) index();
    ASSERT_EQ(write(key), 0);
  }
  EXPECT_GT(failures, 50);
  EXPECT_GE(index().levels, 4);
}

TEST_F(Trees, ADeleteThatCannotFreeANodeChangesNothing) {
  build(kText, KF_DUPS | KF_LCOMPRESS);
  for (int i = 0; i < 500; ++i) ASSERT_EQ(write(any_text()), 0);
  std::vector<std::int32_t> left = index().records;
  std::ranges::shuffle(left, random_);
  int failures = 0;
  for (; !left.empty(); left.pop_back()) {
    const std::int32_t head = isam::dictp->d_freenode();
    const std::int32_t last = isam::dictp->d_nextnode();
    isam::dictp->set_d_freenode(2);  // the key descriptions
    isam::dictp->set_d_nextnode(last + 1);
    const int result = ::isdelrec(isfd_, left.back());
    isam::dictp->set_d_freenode(head);
    isam::dictp->set_d_nextnode(last);
    if (result == 0) continue;
    ASSERT_EQ(::iserrno, ISECORRUPT);
    if (++failures % 20 == 0) index();
    ASSERT_EQ(::isdelrec(isfd_, left.back()), 0);
  }
  EXPECT_GT(failures, 50);
  EXPECT_EQ(index().leaves, std::vector<int>{0});
}

TEST_F(Trees, AnIndexFreesEveryNodeOnce) {
  for (const bool damaged : {false, true}) {
    const BuiltPair pair = build_pair({.node_size = 128,
                                       .record_length = kLength,
                                       .keys = {{0, {{0, 12}}}, {KF_DUPS, {kNumber}}},
                                       .records = 600},
                                      base_);
    if (damaged) {
      // One pointer leads back to the root, another to the key descriptions.
      Image bytes = read_file(base_ + ".idx");
      const auto node = [&](std::size_t upper) {
        return &bytes[static_cast<std::size_t>(pair.indexes[1].uppers[upper] - 1) * 128];
      };
      put4(node(1) + 2 + 6, pair.indexes[1].root);
      put4(node(3) + 2 + 6, 2);
      write_file(base_ + ".idx", bytes);
    }
    open();
    keydescr key{KF_DUPS, 1, {{0, 4, KT_LONG}}, 0, 0};
    EXPECT_EQ(::isdelindex(isfd_, &key), damaged ? -1 : 0);
    ::isclose(isfd_);
    // What no pointer leads to any more is lost, but nothing is free twice.
    for (const std::string& problem : walk_pair(base_).problems) {
      EXPECT_TRUE(damaged && problem.ends_with("is lost")) << problem;
    }
  }
}

// A deleted record's storage is given back before its number: the page that becomes free at once
// takes the list of free numbers.
TEST_F(Trees, APageThatADeleteFreesTakesTheListOfNumbers) {
  for (const int lock : {ISMANULOCK, ISEXCLLOCK}) {
    constexpr int kMinimum = 8, kTrailer = 7;
    keydescr key{0, 1, {{0, kMinimum, KT_CHAR}}, 0, 0};
    ::isreclen = kMinimum;
    ::isclose(::isbuild(base_.c_str(), 2000, &key, ISINOUT | ISEXCLLOCK | ISVARLEN));
    isfd_ = ::isopen(base_.c_str(), ISINOUT | lock | ISVARLEN);
    for (const char* id : {"10000001", "10000002", "10000003"}) {
      std::string record = id + std::string(900, 'x');
      ::isreclen = static_cast<int>(record.size());
      ASSERT_EQ(::iswrite(isfd_, record.data()), 0);
    }
    ASSERT_EQ(::isflush(isfd_), 0);
    const auto header = [this](int field) {
      return get4(&read_file(base_ + ".idx")[static_cast<std::size_t>(field)]);
    };
    const std::int32_t page = get4(&read_file(base_ + ".dat")[2 * (kMinimum + kTrailer) - 4]);
    const std::int32_t nodes = header(dict::kNextNode);
    ASSERT_EQ(::isdelrec(isfd_, 2), 0);
    index();
    ::isclose(isfd_);
    EXPECT_EQ(header(dict::kFreeData), page & 0xFFFFFF);
    EXPECT_EQ(header(dict::kNextNode), nodes);
    EXPECT_EQ(header(dict::kFreeNode), 0);
    ::iserase(base_.c_str());
  }
}

// Its number is higher than any that the dictionary in memory knows.
TEST_F(Trees, ARecordThatAnotherProcessAddedIsReached) {
  build_pair({.record_length = kLength, .keys = {{}}, .records = 3}, base_);
  isfd_ = ::isopen(base_.c_str(), ISINPUT | ISMANULOCK);
  EXPECT_EQ(::isflush(isfd_), 0);
  Image bytes = read_file(base_ + ".idx");
  put4(&bytes[dict::kNextData], 4);
  write_file(base_ + ".idx", bytes);
  EXPECT_EQ(isam::dictp->d_nextdata(), 3);
  isam::Cursor cursor;
  cursor.bt.item.recptr = 3;
  for (const bool there : {true, false, false}) {
    ASSERT_EQ(isam::btmove(cursor, keydescr{}, isam::Direction::kNext), 0);
    EXPECT_TRUE(!there || cursor.bt.item.recptr == 4);
    EXPECT_EQ(cursor.bt.ends, there ? isam::kOnItem : isam::kAfterLast);
  }
}

}  // namespace
}  // namespace testing_support
