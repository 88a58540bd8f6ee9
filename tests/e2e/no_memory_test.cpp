// Changes through shared opens while the pool is small and the system has no memory to let it grow:
// each is made, or fails as a whole.
#include <gtest/gtest.h>

#include "tests/e2e/sessions.h"
#include "tests/support/no_more_memory.h"

namespace testing_support {
namespace {

class NoMemory : public testing::TestWithParam<bool> {
 protected:
  // Opens a pair of 100 records with few buffers, in a process of its own.
  template <typename Changes>
  void expect_whole_after(Changes changes) {
    build_pair_of(base_, GetParam(), 100);
    EXPECT_EQ(end_of(start_process([&] {
                ::setenv("ISAMBUFS", "4", 1);
                Session session{base_, GetParam()};
                EXPECT_GE(session.open(ISINOUT | ISMANULOCK), 0);
                changes(session);
                EXPECT_EQ(::isclose(session.isfd), 0);
                ::_exit(HasFailure() ? 1 : 0);
              })),
              0);
    expect_nothing_found(kestro("-nq", base_));
  }

  static void expect_made_or_refused(int result) {
    EXPECT_TRUE(result == 0 || iserrno == ISEMEMORY) << iserrno;
  }

  const TempFolder folder_;
  const std::string base_ = folder_ / "pair";
};

template <auto kCall>
int without_memory(int isfd, char* record) {
  const NoMoreMemory so_the_pool_stays_small;
  return kCall(isfd, record);
}

TEST_P(NoMemory, SingleChangesAreWhole) {
  expect_whole_after([](Session& session) {
    for (int id = 101; id <= 400; ++id) {
      expect_made_or_refused(session.put({id, id / 9, 0}, without_memory<::iswrite>));
      const int old = id / 4;
      expect_made_or_refused(session.put({old, old / 3, id % 2}, without_memory<::isrewrite>));
    }
    EXPECT_EQ(session.put({1001, 3, 0}, ::iswrite), 0);
  });
}

TEST_P(NoMemory, ManyRecordsAtOnceAreWhole) {
  expect_whole_after([](Session& session) {
    std::vector<Row> rows;
    for (int id = 101; id <= 400; ++id) rows.push_back({id, id / 9, 0});
    RowSet set{rows, GetParam()};
    const auto write_many = [&](int isfd, char*) {
      const NoMoreMemory so_the_pool_stays_small;
      return ::iswritemany(isfd, &set.set) < 300 ? -1 : 0;
    };
    expect_made_or_refused(session.put({}, write_many));
    EXPECT_EQ(session.put({1001, 3, 0}, ::iswrite), 0);
  });
}

INSTANTIATE_TEST_SUITE_P(Lengths, NoMemory, testing::Bool(),
                         [](const auto& tested) { return tested.param ? "Variable" : "Fixed"; });

}  // namespace
}  // namespace testing_support
