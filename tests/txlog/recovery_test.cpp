// Replaying logs: what they lead to, case by case.
#include <cerrno>
#include <sstream>
#include <string_view>
#include <utility>

#include "common/io.h"
#include "tests/support/tables.h"
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
  build_pair("one", varying());
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
    EXPECT_EQ(faults("one"), "");
    EXPECT_TRUE(rows(open("one", 0)) == expected) << c.steps;
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, Evidence, ::testing::Values(false));

TEST_P(Evidence, DecidesWhatIsApplied) {
  const auto cases = read_table(KESTRO_TESTS "/txlog/evidence.txt");
  EXPECT_GT(cases.size(), 80U);
  for (const auto& row : cases) EXPECT_EQ(outcome(row.at(1)), row.at(2)) << row[0];
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
  build_pair("second", varying());
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
