// Freeing at a commit what its transaction has deleted and shortened, where reads, writes or memory
// fail in the middle.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <regex>

#include "common/io.h"
#include "tests/e2e/sessions.h"
#include "tests/support/no_more_memory.h"

namespace testing_support {
namespace {

class CommitRetries : public testing::Test {
 protected:
  void build(bool varying, int records) {
    std::filesystem::remove(base_ + ".idx");
    std::filesystem::remove(base_ + ".dat");
    varying_ = varying;
    records_ = records;
    build_pair_of(base_, varying, records);
    index_ = read_file(base_ + ".idx");
    data_ = read_file(base_ + ".dat");
  }

  // In a process of its own begins a transaction that deletes all records but each third and
  // rewrites these, and goes on with `end`.
  void delete_and(const std::function<void(Session&)>& end, int lock = ISMANULOCK,
                  const char* buffers = "4") {
    write_file(base_ + ".idx", index_);
    write_file(base_ + ".dat", data_);
    write_file(log_, {});
    EXPECT_EQ(end_of(start_process([&] {
                ::setenv("ISAMBUFS", buffers, 1);
                Session session{base_, varying_};
                EXPECT_EQ(::islogopen(log_.c_str()), 0);
                EXPECT_GE(session.open(ISINOUT | ISTRANS | lock), 0);
                EXPECT_EQ(::isbegin(), 0);
                for (int id = 1; id <= records_; ++id) {
                  const bool stays = id % 3 == 0;
                  EXPECT_EQ(session.put({id, id / 3, stays}, stays ? ::isrewrite : ::isdelete), 0);
                }
                end(session);
                EXPECT_EQ(::isclose(session.isfd), 0);
                ::_exit(HasFailure() ? 1 : 0);
              })),
              0);
  }
  bool varying_ = false;
  int records_ = 0;
  const TempFolder folder_;
  const std::string base_ = folder_ / "pair", log_ = folder_ / "log";
  Image index_, data_;
};

// What stands freed in the files although its commit failed (of an exclusive open) may be in use
// again, and is not freed once more. What is not known to be free is lost, but no list is damaged.
// A commit of a shared open is taken back, and what it owes is freed later.
TEST_F(CommitRetries, FreeNothingTwice) {
  static int left = 0;
  static bool of_reads = false;
  const std::regex lost("ERROR: [0-9]+ missing .* pointer.*\nFix .*no");
  // From the call of each of these numbers on, reads or writes fail until the commit has ended.
  const auto commit = [&](int lock, const std::vector<int>& moments) {
    for (const int nth : moments) {
      SCOPED_TRACE(nth);
      delete_and(
          [&](Session& session) {
            left = nth;
            static const auto fails = [](bool read) {
              errno = EIO;
              return read == of_reads && --left < 0;
            };
            common::SystemCalls& calls = common::system_calls();
            calls.pread = [](int fd, void* to, std::size_t count, off_t at) {
              return fails(true) ? -1 : ::pread(fd, to, count, at);
            };
            calls.pwrite = [](int fd, const void* from, std::size_t count, off_t at) {
              return fails(false) ? -1 : ::pwrite(fd, from, count, at);
            };
            {
              const NoMoreMemory so_the_pool_stays_small;
              EXPECT_TRUE(::iscommit() == -1 || !of_reads);
            }
            calls.pread = ::pread;
            calls.pwrite = ::pwrite;
            for (int id = 2001; id <= 2090; ++id) session.put({id}, ::iswrite);
            ::isbegin();
            for (int id = 2001; id <= 2030; ++id) session.put({id}, ::isdelete);
            ::iscommit();
            for (int id = 3001; id <= 3030; ++id) session.put({id}, ::iswrite);
          },
          lock);
      const std::string report = kestro("-nq", base_);
      const bool may_lose = lock == ISEXCLLOCK;
      expect_nothing_found(may_lose ? std::regex_replace(report, lost, "") : report);
    }
  };
  of_reads = true;
  build(true, 120);
  commit(ISEXCLLOCK, {6, 18, 19, 34, 35, 66, 106, 156, 206, 256, 258});
  commit(ISMANULOCK, {1, 6, 11, 13, 22, 24, 56, 87, 98, 104, 123});
  of_reads = false;
  build(false, 1200);
  commit(ISMANULOCK, {1, 3, 5, 7, 9, 11, 13, 15, 17});
}

// Where memory ends, fewer records are freed at once.
TEST_F(CommitRetries, SucceedInSmallerPartsWithoutMemory) {
  build(true, 120);
  delete_and(
      [](Session&) {
        const NoMoreMemory so_the_pool_stays_small;
        EXPECT_EQ(::iscommit(), 0);
      },
      ISMANULOCK, "40");
  expect_nothing_found(kestro("-nq", base_));
}

}  // namespace
}  // namespace testing_support
