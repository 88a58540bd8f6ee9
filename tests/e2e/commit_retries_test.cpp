// Freeing at a commit what its transaction has deleted and shortened, where that is damaged: it is
// told, the rest is free, and nothing is tried for ever.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <regex>

#include "common/io.h"
#include "tests/e2e/sessions.h"

namespace testing_support {
namespace {

// The system gives the process no more memory.
class NoMoreMemory {
 public:
  NoMoreMemory() {
    ::getrlimit(RLIMIT_AS, &before_);
    const struct rlimit none { 1, before_.rlim_max };
    ::setrlimit(RLIMIT_AS, &none);
  }
  NoMoreMemory(const NoMoreMemory&) = delete;
  NoMoreMemory& operator=(const NoMoreMemory&) = delete;
  ~NoMoreMemory() { ::setrlimit(RLIMIT_AS, &before_); }

 private:
  struct rlimit before_ {};
};

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
  void delete_and(const std::function<void(Session&)>& end, int lock = ISMANULOCK) {
    write_file(base_ + ".idx", index_);
    write_file(base_ + ".dat", data_);
    write_file(log_, {});
    EXPECT_EQ(end_of(start_process([&] {
                ::setenv("ISAMBUFS", "4", 1);
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
  static int records_of(const Session& session) {
    dictinfo info{};
    EXPECT_EQ(::isdictinfo(session.isfd, &info), 0);
    return info.di_nrecords;
  }

  bool varying_ = false;
  int records_ = 0;
  const TempFolder folder_;
  const std::string base_ = folder_ / "pair", log_ = folder_ / "log";
  Image index_, data_;
};

TEST_F(CommitRetries, TellOnceWhatIsDamagedAndFreeTheRest) {
  build(true, 60);
  const auto commit_twice = [](int freed, Session& session) {
    EXPECT_EQ(::iscommit(), -1);
    EXPECT_EQ(::iserrno, ISECORRUPT);
    EXPECT_EQ(records_of(session), 60 - freed);
    EXPECT_EQ(::isbegin() + ::iscommit(), 0);
    EXPECT_EQ(records_of(session), 60 - freed);
  };
  delete_and([&](Session& session) {
    // The storage of record 2 is where none can be; its block has left the pool.
    Image data = read_file(base_ + ".dat");
    put4(&data[std::size_t{kMinimum} + 7 + kMinimum + 3], 0x101);
    write_file(base_ + ".dat", data);
    while (session.read(RD_NEXT) == 0) continue;
    commit_twice(39, session);
  });
  // No free number can be noted any more.
  delete_and([&](Session&) {
    Image index = read_file(base_ + ".idx");
    put4(&index[dict::kFreeData], 2);
    write_file(base_ + ".idx", index);
    EXPECT_EQ(::iscommit(), -1);
    EXPECT_EQ(::iserrno, ISECORRUPT);
    EXPECT_EQ(::isbegin() + ::iscommit(), 0);
  });
}

// More than the pool can keep back: what is freed goes to the file in parts, each of which a
// refused write leaves as it was.
TEST_F(CommitRetries, FreeMoreThanThePoolHolds) {
  static int writes_left = 0;
  build(true, 3600);
  for (const int nth : {2, 60, 900}) {
    delete_and([&](Session& session) {
      writes_left = nth;  // the first is the log's
      common::system_calls().pwrite = [](int fd, const void* from, std::size_t count,
                                         off_t offset) {
        if (--writes_left != 0) return ::pwrite(fd, from, count, offset);
        errno = EIO;
        return ssize_t{-1};
      };
      EXPECT_EQ(::iscommit(), 0) << ::iserrno;
      EXPECT_LE(writes_left, 0);
      EXPECT_EQ(records_of(session), 1200);
    });
    expect_nothing_found(kestro("-nq", base_));
  }
}

// What stands freed in the files although its commit failed (of an exclusive open, or where the
// pool had no room for it) may be in use again, and is not freed once more. What is not known to be
// free is lost.
TEST_F(CommitRetries, FreeNothingTwice) {
  static int left = 0;
  const auto use_again = [](Session& session) {
    for (int id = 2001; id <= 2090; ++id) session.put({id}, ::iswrite);
    ::isbegin();
    for (int id = 2001; id <= 2030; ++id) session.put({id}, ::isdelete);
    ::iscommit();
    for (int id = 3001; id <= 3030; ++id) session.put({id}, ::iswrite);
  };
  const std::regex lost("ERROR: [0-9]+ missing .* pointer.*\nFix .*no");
  build(true, 120);
  for (const int lock : {ISEXCLLOCK, ISMANULOCK}) {
    for (int nth = 7; nth < (lock == ISEXCLLOCK ? 260 : 90); nth += 10) {
      SCOPED_TRACE(nth);
      delete_and(
          [&](Session& session) {
            left = nth;
            common::system_calls().pread = [](int fd, void* to, std::size_t count, off_t at) {
              if (--left >= 0) return ::pread(fd, to, count, at);
              errno = EIO;
              return ssize_t{-1};
            };
            {
              const NoMoreMemory so_the_pool_stays_small;
              EXPECT_EQ(::iscommit(), -1);
            }
            common::system_calls().pread = ::pread;
            use_again(session);
          },
          lock);
      expect_nothing_found(std::regex_replace(kestro("-nq", base_), lost, ""));
    }
  }
  build(false, 1200);
  for (int nth = 2; nth < 20; nth += 2) {
    SCOPED_TRACE(nth);
    delete_and([&](Session& session) {
      left = nth;
      common::system_calls().pwrite = [](int fd, const void* from, std::size_t count, off_t at) {
        if (--left > 0) return ::pwrite(fd, from, count, at);
        errno = EIO;
        return ssize_t{-1};
      };
      {
        const NoMoreMemory so_the_pool_stays_small;
        ::iscommit();
      }
      common::system_calls().pwrite = ::pwrite;
      use_again(session);
    });
    expect_nothing_found(std::regex_replace(kestro("-nq", base_), lost, ""));
  }
}

}  // namespace
}  // namespace testing_support
