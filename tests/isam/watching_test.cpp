#include "isam/files/watching.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

#include "isam/files/locklist.h"
#include "isam/files/locks.h"
#include "isam/files/lockspace.h"
#include "tests/isam/test_pair.h"
#include "tests/support/between.h"
#include "tests/support/child_process.h"

namespace isam {
namespace {

using testing_support::end_of;
using testing_support::SystemCall;
using testing_support::TestPair;

TEST(Watching, ReadsTheSystemsListOfLocks) {
  std::istringstream list(
      "1: POSIX  ADVISORY  READ 7 08:01:12 2147483647 2147483647\n"
      "2: POSIX  ADVISORY  WRITE 8 08:01:12 1073741829 1073741830\n"
      "2: -> POSIX  ADVISORY  WRITE 9 08:01:12 1073741829 1073741829\n"
      "3: FLOCK  ADVISORY  WRITE 10 08:01:12 0 EOF\n"
      "4: POSIX  ADVISORY  WRITE 11 08:02:12 0 EOF\n"  // another disk's file of the same number
      "5: POSIX  ADVISORY  READ 12 08:01:12 0 EOF\n"
      "6: POSIX  ADVISORY  WRITE\n");
  const auto locks = locks_of_others(list, 7);
  ASSERT_EQ(locks.size(), 2U);
  EXPECT_EQ(locks[0].process, 8);
  EXPECT_EQ(locks[0].first, lockspace::kRecordsStart + 5);
  EXPECT_EQ(locks[0].last, lockspace::kRecordsStart + 6);
  EXPECT_EQ(locks[1].process, 12);
  EXPECT_GT(locks[1].last, lockspace::kRecordsStart + lockspace::kRecordsLength);
  std::istringstream again(list.str());
  EXPECT_TRUE(locks_of_others(again, 99).empty());
}

// A process has every third record locked.
class Locked : public testing::Test {
 protected:
  static constexpr int kLocks = 3000;
  static constexpr std::int32_t kLast = 4 * kLocks;

  Locked() {
    int ready[2];
    EXPECT_EQ(::pipe(ready), 0);
    process_ = testing_support::start_process([&] {
      for (int i = 1; i <= kLocks; ++i) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_start = lockspace::kRecordsStart + 3 * off_t{i};
        lock.l_len = 1;
        ::fcntl(filep->index.fd, F_SETLK, &lock);
      }
      if (::write(ready[1], "", 1) != 1) ::_exit(1);
      ::pause();
    });
    char byte = 0;
    ::close(ready[1]);
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    EXPECT_EQ(lksemaphore(Semaphore::kShared), 0);
    testing_support::stand_between([this](const SystemCall& call) {
      asked_ += call.kind == SystemCall::kLock && call.flags == F_GETLK ? 1 : 0;
      return 0;
    });
  }
  ~Locked() override {
    testing_support::stand_aside();
    ::kill(process_, SIGKILL);
    end_of(process_);
  }

  // Whether all records from `first` to `last` are told as they are.
  void compare(RecordLocks& locks, std::int32_t first, std::int32_t last) const {
    for (std::int32_t record = first; record <= last; ++record) {
      const LockedRecords* const found = locks.find(record);
      const bool is_locked = record > 0 && record % 3 == 0 && record <= 3 * kLocks;
      ASSERT_EQ(found != nullptr, is_locked) << record;
      ASSERT_TRUE(!is_locked || found->process == process_);
    }
  }

  TestPair pair_;
  pid_t process_ = 0;
  int asked_ = 0;
};

TEST_F(Locked, FewQuestionsTellMost) {
  // The system's own list may lack some locks when other processes take and release theirs
  // meanwhile, and may be hidden; this one is whole.
  const std::string list = pair_.base() + ".locks";
  std::ofstream lines(list);
  lines << "1: POSIX  ADVISORY  READ " << ::getpid() << " 08:01:12 0 0\n";
  for (int i = 1; i <= kLocks; ++i) {
    const off_t byte = lockspace::kRecordsStart + 3 * off_t{i};
    lines << "2: POSIX  ADVISORY  WRITE " << process_ << " 08:01:12 " << byte << ' ' << byte
          << '\n';
  }
  lines.close();
  RecordLocks locks(kLast, list.c_str());
  for (int i = kLocks; i > 0; --i) ASSERT_NE(locks.find(3 * i), nullptr);
  EXPECT_LT(asked_, 70);
  asked_ = 0;
  compare(locks, 1, 10);
  EXPECT_LE(asked_, 4);
  const LockedRecords* const next = locks.next(10, kLast);
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(next->first, 12);
  compare(locks, 3 * kLocks - 2, kLast);
  EXPECT_LT(asked_, 10);
}

TEST_F(Locked, WhatTheListLacksIsAskedFor) {
  RecordLocks locks(kLast, "/dev/null");
  compare(locks, 0, 60);
  compare(locks, 3 * kLocks - 10, kLast);
  EXPECT_EQ(locks.find(kLast + 3), nullptr);
}

}  // namespace
}  // namespace isam
