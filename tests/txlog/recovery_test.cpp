// Replaying logs: real ones over restored files, and ones put together by hand.
#include <cerrno>
#include <sstream>
#include <string_view>
#include <utility>

#include "common/io.h"
#include "tests/txlog/recoveries.h"

namespace testing_support {
namespace {

INSTANTIATE_TEST_SUITE_P(Formats, Recovery, ::testing::Bool(),
                         [](const auto& format) { return format.param ? "Varying" : "Fixed"; });

// Inside a transaction (capital letters) a record is written, rewritten and deleted, also through
// an open that has no part in it: what that does stands after the rollback, and in a recovery, also
// when the record has got the same bytes again under the same number.
TEST_P(Recovery, LeavesWhatCameOverARollback) {
  const struct {
    int id;
    const char* steps;  // each with the group that the record gets, or another one
    int group;          // in the end; -1: the record is gone
  } kCases[] = {
      {1, "R1 r2", 2},    {1, "R1 r2 R3", 2},     {1, "r2 R1", 2},     {1, "R1 d0", -1},
      {1, "R1 d0 w2", 2}, {1, "R1 d0 w1", 1},     {1, "R1 d0 W1", -1}, {4, "W1 d0", -1},
      {4, "W1 d0 w2", 2}, {4, "W1 d0 r03 w1", 1}, {4, "W1 r2 d0", -1}, {4, "W1 d0 w2 R3 r4 D0", 4},
  };
  build("one", -1);
  keep_copy();
  for (const auto& c : kCases) {
    ::iscleanup();
    restore_copy();
    std::filesystem::resize_file("log", 0);
    ASSERT_EQ(::islogopen("log"), 0);
    const int inside = open("one"), plain = open("one", 0);
    for (int id = 1; id <= 3; ++id) write(plain, row(id, 0));
    ASSERT_EQ(::isbegin(), 0);
    std::istringstream steps{c.steps};
    for (std::string step; steps >> step;) {
      const int isfd = step[0] < 'a' ? inside : plain;
      const int group = step[1] - '0';
      const int id = step.size() > 2 ? step[2] - '0' : c.id;
      const std::string record = row(id, group, filler(900 * (group % 3)));
      const char what = static_cast<char>(step[0] | 0x20);
      EXPECT_EQ(what == 'd'   ? erase(isfd, id)
                : what == 'r' ? rewrite(isfd, record)
                              : write(isfd, record),
                0)
          << c.steps;
    }
    EXPECT_EQ(::isrollback(), 0) << c.steps;
    Rows expected;
    for (int id = 1; id <= 4; ++id) {
      const int group = id == c.id ? c.group : id < 4 ? 0 : -1;
      if (group >= 0) expected.push_back(row(id, group, filler(900 * (group % 3))));
    }
    EXPECT_TRUE(rows(plain) == expected) << c.steps;
    ASSERT_EQ(replay(), 0) << c.steps;
    EXPECT_TRUE(rows_of("one") == expected) << c.steps;
  }
}

// The trail is no part of the copy: a recovery does not need it, and writes to it when it is there.
TEST_P(Recovery, GoesOnWithoutTheAuditTrail) {
  const int isfd = build("one", 0);
  char name[128] = "trail";
  EXPECT_EQ(::isaudit(isfd, name, AUDSETNAME), 0);
  EXPECT_EQ(::isaudit(isfd, name, AUDSTART), 0);
  ::isclose(isfd);
  std::filesystem::remove("trail");
  keep_copy();
  std::ofstream{"trail"};
  ASSERT_EQ(::islogopen("log"), 0);
  const int logged = open("one");
  EXPECT_EQ(write(logged, row(1, 0)), 0);
  EXPECT_EQ(rewrite(logged, row(1, 1)), 0);
  EXPECT_EQ(write(logged, row(2, 0)), 0);
  EXPECT_EQ(erase(logged, 2), 0);
  for (const bool missing : {true, false}) {
    std::filesystem::remove("trail");
    if (!missing) std::ofstream{"trail"};
    EXPECT_EQ(replay(), 0) << iserrno;
    EXPECT_EQ(rows_of("one"), Rows{row(1, 1)});
    EXPECT_EQ(std::filesystem::exists("trail"), !missing);
  }
  EXPECT_GT(std::filesystem::file_size("trail"), 0U);
}

// The copy of a pair may have been made while an exclusive open had not written everything.
TEST_P(Recovery, TakesAPairThatBearsAMark) {
  build("one", -1);
  Image index = read_file("one.idx");
  const Image bare = index;
  put4(&index[117], 0x4558434C);
  write_file("one.idx", index);
  keep_copy();
  write_file("one.idx", bare);
  ASSERT_EQ(::islogopen("log"), 0);
  write(open("one"), row(1, 0));
  ::iscleanup();
  ::islogclose();
  ASSERT_EQ(replay(), 0) << iserrno;
  EXPECT_LT(::isopen("one", ISINOUT | ISMANULOCK | ISANYLENGTH), 0);
  EXPECT_EQ(iserrno, ISECORRUPT);
  index = read_file("one.idx");
  put4(&index[117], 0);
  write_file("one.idx", index);
  EXPECT_EQ(rows_of("one").size(), 1U);
}

TEST_P(Recovery, RedoesChangesOfFiles) {
  build("one", -1);
  keep_copy();
  ASSERT_EQ(::islogopen("log"), 0);
  int one = ::isopen("one", ISINOUT + ISEXCLLOCK + format());
  for (int id = 1; id <= 30; ++id) ASSERT_EQ(write(one, row(31 - id, id % 4, filler(200))), 0);
  for (int id = 1; id <= 5; ++id) ASSERT_EQ(erase(one, id * 3), 0);
  keydescr id = id_key();
  keydescr extra{KF_DUPS, 1, {{4, 4, KT_LONG}}, 0, 0};
  ASSERT_EQ(::isaddindex(one, &extra), 0);
  one = ::iscluster(one, &id);
  ASSERT_GE(one, 0);
  ASSERT_EQ(rewrite(one, row(30, 99)), 0);
  std::int32_t unique = 0;
  ASSERT_EQ(::issetunique(one, 500), 0);
  ASSERT_EQ(::isuniqueid(one, &unique), 0);
  ::isclose(one);
  ASSERT_EQ(::isrename("one", "other"), 0);
  keydescr made_key = id_key();
  ::isreclen = kMinimum;
  int made = ::isbuild("one", varying() ? kMaximum : kMinimum, &made_key,
                       ISINOUT + ISMANULOCK + ISTRANS + format());
  ASSERT_EQ(::isbegin(), 0);
  ASSERT_EQ(write(made, row(1, 1)), 0);
  ASSERT_EQ(::iscommit(), 0);
  ::isclose(made);
  made = ::isbuild("gone", kMinimum, &made_key, ISINOUT + ISMANULOCK);
  ::isclose(made);
  ASSERT_EQ(::iserase("gone"), 0);
  const Rows expected = rows_of("other");

  std::filesystem::remove("other.idx");
  std::filesystem::remove("other.dat");
  ASSERT_EQ(replay(), 0) << iserrno;
  EXPECT_TRUE(rows_of("other") == expected);
  one = ::isopen("other", ISINPUT + ISMANULOCK + format());
  EXPECT_EQ(::iststindex(one, &extra), 0);
  EXPECT_EQ(::iscurruniq(one, &unique), 0);
  EXPECT_EQ(unique, 501);
  EXPECT_FALSE(std::filesystem::exists("gone.idx"));
  one = ::isopen("one", ISINPUT + ISMANULOCK + format());
  std::string record(kMaximum, 0);
  ASSERT_EQ(::isread(one, record.data(), RD_FIRST), 0);
  EXPECT_EQ(record.substr(0, kMinimum), row(1, 1));
}

// A rollback leaves equal keys in another order, which a recovery does not see. Later changes name
// records by their numbers.
TEST_P(Recovery, GivesClusteredEqualsTheSameNumbers) {
  const auto cluster = [](int mode) {
    int isfd = ::isopen("one", ISINOUT + ISEXCLLOCK + format() + mode);
    keydescr by_group = group_key();
    isfd = ::iscluster(isfd, &by_group);
    EXPECT_GE(isfd, 0) << iserrno;
    return isfd;
  };
  const auto ids_by_number = [](int isfd) {
    keydescr by_number{};
    std::string record(kMaximum, 0);
    std::vector<int> ids;
    EXPECT_EQ(::isstart(isfd, &by_number, 0, record.data(), RD_FIRST), 0);
    while (::isread(isfd, record.data(), RD_NEXT) == 0) {
      ids.push_back(std::stoi(record.substr(0, kIdLength)));
    }
    return ids;
  };
  build("one", -1);
  const int before = ::isopen("one", ISINOUT + ISEXCLLOCK + format());
  for (int id = 1; id <= 6; ++id) ASSERT_EQ(write(before, row(id, id % 2, filler(id * 9))), 0);
  ::isclose(before);
  keep_copy();
  ASSERT_EQ(::islogopen("log"), 0);
  int one = open("one");
  ASSERT_EQ(::isbegin(), 0);
  for (const int id : {1, 2}) ASSERT_EQ(erase(one, id), 0);
  ASSERT_EQ(::isrollback(), 0);
  ::isclose(one);

  one = cluster(ISTRANS);
  EXPECT_EQ(ids_by_number(one), (std::vector{2, 4, 6, 1, 3, 5}));
  std::string record = row(2, 7);
  isreclen = kMinimum;
  ASSERT_EQ(::isrewrec(one, 1, record.data()), 0);
  ::isclose(one);
  const Rows expected = rows_of("one");
  ASSERT_EQ(replay(), 0) << iserrno;
  EXPECT_TRUE(rows_of("one") == expected);

  // Nobody will repeat what is not logged.
  restore_copy();
  one = open("one", 0);
  for (const int group : {2, 1}) ASSERT_EQ(rewrite(one, row(1, group, filler(9))), 0);
  ::isclose(one);
  one = cluster(0);
  EXPECT_EQ(ids_by_number(one), (std::vector{2, 4, 6, 3, 5, 1}));
  ::isclose(one);
}

// Fails to look at the pair for once after it got its name back.
bool pair_is_back = false;
int link_and_tell(const char* from, const char* to) {
  pair_is_back |= std::string_view(to) == "pair.idx";
  return ::link(from, to);
}
int stat_or_fail(const char* path, struct stat* status) {
  errno = EIO;
  return std::exchange(pair_is_back, false) ? -1 : ::stat(path, status);
}

// When the pair cannot be opened after it was clustered, its number is given to the next one.
TEST_P(Evidence, OpensAPairAgainThatItLostWhenItWasClustered) {
  build("second", -1);
  keep_copy();
  const auto system = common::system_calls();
  common::system_calls().link = link_and_tell;
  common::system_calls().stat = stat_or_fail;
  EXPECT_EQ(outcome("-k ac bo4:second a+4:4.0 b+1:1.0"),
            "1:1.0 2:2.0 3:3.0 4:4.0 CL=5 cluster index redo problem");
  common::system_calls() = system;
  EXPECT_EQ(contents_of("second"), "1:1.0");
}

}  // namespace
}  // namespace testing_support
