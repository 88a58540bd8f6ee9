// Rewrites that a transaction holds back in batch mode, and in a call for many: when they come to
// the log and to the file, and what becomes of those that cannot.
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <numeric>
#include <utility>

#include "common/io.h"
#include "tests/support/between.h"
#include "tests/support/child_process.h"
#include "tests/txlog/log_fixture.h"

namespace testing_support {
namespace {

constexpr int kIds = 80, kFiller = 8, kLength = kMinimum + kFiller;

int writes_left = INT_MAX;
int lost_in_a_row = 1;

ssize_t write_or_fail(int fd, const void* from, std::size_t count, off_t at) {
  if (writes_left-- > 0 || writes_left < -lost_in_a_row) return ::pwrite(fd, from, count, at);
  // Half a write can be taken back if the next one does not fail.
  if (lost_in_a_row == 1 && ::pwrite(fd, from, count * 3 / 4, at) < 0) return -1;
  errno = EIO;
  return -1;
}

std::string written;  // the last letters of the names of files, one behind the other

ssize_t note_write(int fd, const void* from, std::size_t count, off_t at) {
  const std::string name = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
  written += name.substr(name.size() - 3) + ' ';
  return ::pwrite(fd, from, count, at);
}

int refuse_third(int fd, int command, struct flock* lock) {
  constexpr off_t kRecordLocks = 0x40000000;
  if (lock->l_start != kRecordLocks + 3) return ::fcntl(fd, command, lock);
  errno = EAGAIN;
  return -1;
}

class HeldBack : public LogTest {
 protected:
  HeldBack() {
    keydescr id = id_key(), group = group_key();
    const int isfd = ::isbuild("pair", kLength, &id, ISINOUT + ISEXCLLOCK);
    EXPECT_EQ(::isaddindex(isfd, &group), 0);
    for (int number = 1; number <= kIds; ++number) add(isfd, row(number, 1, kFiller, '0'));
    ::isclose(isfd);
    keep_copy();
  }
  ~HeldBack() override { common::system_calls() = system_; }

  void begin() {
    ::iscleanup();
    ::islogclose();
    restore_copy();
    std::ofstream{"log"};
    EXPECT_EQ(::islogopen("log"), 0);
    isfd_ = ::isopen("pair", ISINOUT + ISMANULOCK + ISTRANS);
    EXPECT_EQ(::isbatch(1) + ::isbegin(), 0);
  }
  static char counter(int isfd, int id) {
    std::string record = row(id, 0, kFiller);
    return ::isread(isfd, record.data(), RD_EQUAL) == 0 ? record.back() : '?';
  }
  [[nodiscard]] int count(int id) const {
    std::string record = row(id, 0, kFiller);
    if (::isread(isfd_, record.data(), RD_EQUAL + RD_LOCK) != 0) return -1;
    ++record[kMinimum];
    ++record.back();
    return ::isrewcurr(isfd_, record.data());
  }
  // Gives several this counter in one call: how many it has rewritten. Their numbers are their ids.
  [[nodiscard]] int set_all(std::vector<std::int32_t> ids, char counter) const {
    std::string records;
    for (const std::int32_t id : ids) records += row(id, 1, kFiller, counter);
    recordset set{static_cast<std::int32_t>(ids.size()), records.data(), records.size(), ids.data(),
                  nullptr};
    return ::isrewritemany(isfd_, &set);
  }
  static std::int32_t stamp() { return get4(&read_file("pair.idx")[41]); }
  // The counters in the file from id 1 on. A record has its counter twice.
  static std::string in_file(int ids) {
    const auto records = walk_pair("pair").records;
    std::string counters;
    for (int id = 1; id <= ids; ++id) {
      const Image& record = records.at(id);
      counters += record[kMinimum] == record.back() ? static_cast<char>(record.back()) : '?';
    }
    return counters;
  }

  int isfd_ = -1;
  common::SystemCalls system_ = common::system_calls();
};

TEST_F(HeldBack, ReachLogAndFileWhenTheFileIsLetGo) {
  begin();
  const std::int32_t before = stamp();
  EXPECT_EQ(count(1) + count(2), 0);
  EXPECT_EQ(stamp(), before + 1);
  EXPECT_EQ(counter(isfd_, 1), '1');
  EXPECT_EQ(types() + in_file(2), "00");
  EXPECT_EQ(counter(isfd_, 3), '0');  // the sixth call
  EXPECT_EQ(types() + in_file(2), "BW FO UP UP11");
  EXPECT_EQ(stamp(), before + 2);
  EXPECT_EQ(::iscommit(), 0);
  EXPECT_EQ(types(), "BW FO UP UP CW");
}

TEST_F(HeldBack, ShareATurnAtTheLogWithTheCommitsMark) {
  begin();
  EXPECT_EQ(count(1), 0);
  int turns = 0;
  stand_between([&](const SystemCall& call) {
    const bool begins = call.kind == SystemCall::kLock && call.lock->l_type == F_WRLCK;
    if (begins && call.name().ends_with("/log")) ++turns;
    return 0;
  });
  EXPECT_EQ(::iscommit(), 0);
  stand_aside();
  EXPECT_EQ(turns, 1);
  EXPECT_EQ(types() + in_file(1), "BW FO UP CW1");
}

// The raised stamp is in the file when the call returns, in batch mode too.
TEST_F(HeldBack, OfOneCallGoTogether) {
  begin();
  const std::int32_t before = stamp();
  EXPECT_EQ(set_all({1, 2, 3}, '1'), 3);
  EXPECT_EQ(stamp(), before + 3);
  EXPECT_EQ(types() + in_file(3), "000");
  EXPECT_EQ(counter(isfd_, 3), '1');
  EXPECT_EQ(set_all({4, 5}, '2'), 2);
  EXPECT_EQ(stamp(), before + 3);
  EXPECT_EQ(::iscommit(), 0);
  EXPECT_EQ(stamp(), before + 5);
  EXPECT_EQ(types() + in_file(5), "BW FO UP UP UP UP UP CW11122");

  ::isbatch(0);
  ::isbegin();
  common::system_calls().pwrite = note_write;
  written.clear();
  EXPECT_EQ(set_all({1, 2}, '3'), 2);
  common::system_calls().pwrite = ::pwrite;
  EXPECT_EQ(written, "log idx dat dat ");
  EXPECT_EQ(stamp(), before + 7);
  EXPECT_EQ(::isrollback(), 0);
  EXPECT_EQ(in_file(5), "11122");
  ::iscleanup();
  EXPECT_EQ(faults("pair"), "");
}

TEST_F(HeldBack, OfOneCallGoInTwoPiecesWhenTheyAreMany) {
  begin();
  ::isbatch(0);
  std::vector<std::int32_t> ids(kIds);
  std::iota(ids.begin(), ids.end(), 1);
  common::system_calls().pwrite = note_write;
  written.clear();
  EXPECT_EQ(set_all(ids, '1'), kIds);
  common::system_calls().pwrite = ::pwrite;
  EXPECT_EQ(std::count(written.begin(), written.end(), 'g'), 2);
  EXPECT_EQ(::iscommit(), 0);
  EXPECT_EQ(in_file(kIds), std::string(kIds, '1'));
  ::iscleanup();
  restore_copy();
  EXPECT_EQ(::isrecover(), 0);
  EXPECT_EQ(in_file(kIds), std::string(kIds, '1'));
}

// The third is locked by another process, or not there.
TEST_F(HeldBack, OfOneCallStayUpToTheFirstThatFails) {
  for (const bool in_batch : {false, true}) {
    for (const int third : {3, kIds + 1}) {
      begin();
      ::isbatch(in_batch ? 1 : 0);
      const std::int32_t before = stamp();
      common::system_calls().fcntl_lock = refuse_third;
      EXPECT_EQ(set_all({1, 2, third, 4}, '1'), 2);
      common::system_calls().fcntl_lock = system_.fcntl_lock;
      EXPECT_EQ(iserrno, third == 3 ? ISELOCKED : ISENORECORD);
      EXPECT_EQ(isrecnum, 2);
      EXPECT_EQ(stamp(), before + 2);
      EXPECT_EQ(types() + in_file(2), in_batch ? "00" : "BW FO UP UP11");
      EXPECT_EQ(::iscommit(), 0);
      EXPECT_EQ(types() + in_file(4), "BW FO UP UP CW1100");
      ::iscleanup();
      EXPECT_EQ(faults("pair"), "");
    }
  }
}

// A lock that is refused once is no matter: what is told is why the log could not be written.
TEST_F(HeldBack, DoNotTellOfALockThatWasHadAfterwards) {
  begin();
  EXPECT_EQ(count(1), 0);
  bool refused = false;
  stand_between([&](const SystemCall& call) {
    if (!call.name().ends_with("/log")) return 0;
    if (call.kind == SystemCall::kLock) return std::exchange(refused, true) ? 0 : EDEADLK;
    return call.kind == SystemCall::kWrite ? ENOSPC : 0;
  });
  EXPECT_EQ(::iscommit(), -1);
  stand_aside();
  EXPECT_EQ(iserrno, ISELOGWRITE);
  EXPECT_EQ(iserrio, 0);
  EXPECT_EQ(::iscommit(), 0);
  EXPECT_EQ(types() + in_file(1), "BW FO UP CW1");
}

// The same record again, the same bytes, what changes a key, and what is not a rewrite.
TEST_F(HeldBack, GoBeforeWhatIsNot) {
  begin();
  std::string same = row(2, 1, kFiller, '0'), other = row(3, 8, kFiller, '5'),
              first = row(1, 1, kFiller, '7');
  EXPECT_EQ(count(1) + ::isrewrite(isfd_, same.data()), 0);
  EXPECT_EQ(types() + in_file(3), "000");
  EXPECT_EQ(::isrewrite(isfd_, other.data()), 0);
  EXPECT_EQ(types() + in_file(3), "BW FO UP UP UP105");
  EXPECT_EQ(::isrewrite(isfd_, first.data()), 0);
  EXPECT_EQ(counter(isfd_, 1), '7');
  EXPECT_EQ(count(1), 0);
  EXPECT_EQ(counter(isfd_, 1), '8');
  EXPECT_EQ(add(isfd_, row(kIds + 1, 1, kFiller)), 0);
  EXPECT_EQ(::iscommit(), 0);
  EXPECT_EQ(types() + in_file(3), "BW FO UP UP UP UP UP IN CW805");
  ::iscleanup();
  EXPECT_EQ(faults("pair"), "");
}

TEST_F(HeldBack, AreWrittenBeforeAnythingElseIsDone) {
  begin();
  const int another = ::isopen("pair", ISINOUT + ISMANULOCK);
  std::int32_t id = 0;
  keydescr key = group_key(), by_id = id_key();
  ::isrollback();
  for (const auto& call : std::vector<std::function<int()>>{
           [&] { return counter(another, 1) == '1' ? 0 : -1; }, [&] { return ::isflush(isfd_); },
           [&] { return ::isrelease(isfd_); }, [&] { return ::isuniqueid(isfd_, &id); },
           [&] { return ::isstart(isfd_, &key, 0, nullptr, RD_FIRST); },
           [&] { return erase(isfd_, 2); }, [] { return ::isbatch(2); }}) {
    EXPECT_EQ(::isstart(isfd_, &by_id, 0, nullptr, RD_FIRST) + ::isbatch(1), 0);
    ASSERT_EQ(::isbegin() + count(1), 0) << iserrno;
    EXPECT_EQ(in_file(1), "0");
    EXPECT_EQ(call(), 0) << iserrno;
    EXPECT_EQ(in_file(1), "1");
    EXPECT_EQ(::isrollback(), 0);
  }
  EXPECT_EQ(in_file(2), "00");
}

// A call splits a leaf for its first key and is refused for its second: of the dictionary copy only
// the stamp is written with what was held back.
TEST_F(HeldBack, AreWrittenWithoutTheDictionaryOfARefusedCall) {
  constexpr int kRecords = 60;
  const auto wide = [](int id, int first, int second, int counter) {
    std::array<char, 128> text;
    std::snprintf(text.data(), text.size(), "%04d%0100d%08d%d", id, first, second, counter);
    return std::string(text.data());
  };
  const auto part = [](std::int16_t start, std::int16_t length) {
    return keydescr{0, 1, {{start, length, KT_CHAR}}, 0, 0};
  };
  keydescr id = part(0, 4), first = part(4, 100), second = part(104, 8);
  const int built = ::isbuild("wide", 113, &id, ISINOUT + ISEXCLLOCK);
  ASSERT_EQ(::isaddindex(built, &first) + ::isaddindex(built, &second), 0);
  for (int n = 1; n <= kRecords; ++n) add(built, wide(n, n * 10, n, 0));
  ::isclose(built);
  ASSERT_EQ(::islogopen("log"), 0);
  const int isfd = ::isopen("wide", ISINOUT + ISMANULOCK + ISTRANS);
  EXPECT_EQ(::isbatch(1) + ::isbegin(), 0);
  for (int n = 1; n <= 2; ++n) EXPECT_EQ(::isrewrite(isfd, wide(n, n * 10, n, 1).data()), 0);
  EXPECT_EQ(::isrewrite(isfd, wide(40, 15, 3, 1).data()), -1);
  EXPECT_EQ(iserrno, ISEDUPLICATE);
  EXPECT_EQ(::iscommit(), 0);
  ::iscleanup();
  EXPECT_EQ(faults("wide"), "");
  EXPECT_EQ(walk_pair("wide").records.at(2).back(), '1');
}

// The first end of the transaction finds no room in the log; there is room for the second.
TEST_F(HeldBack, GoOnWaitingForAnotherCommitOrAreToldByAFlush) {
  for (const bool flushes : {false, true}) {
    begin();
    EXPECT_EQ(count(1), 0);
    common::system_calls().pwrite = write_or_fail;
    writes_left = 0;
    lost_in_a_row = 1;
    EXPECT_EQ(flushes ? ::isflush(isfd_) : ::iscommit(), -1);
    EXPECT_EQ(iserrno, ISELOGWRITE);
    common::system_calls().pwrite = ::pwrite;
    EXPECT_EQ(::iscommit(), flushes ? -1 : 0);
    EXPECT_EQ(::isrollback(), flushes ? 0 : -1);
    EXPECT_EQ(types() + in_file(1), flushes ? "0" : "BW FO UP CW1");
  }
}

// What is held back belongs to one process and to one log.
TEST_F(HeldBack, AreNotAChildsAndNotThoseOfALogPutAside) {
  begin();
  EXPECT_EQ(count(1), 0);
  EXPECT_EQ(
      end_of(start_process([&] {
        ::_exit(count(2) != 0 && iserrno == ISENOTOPEN && ::iscleanup() == 0 && ::islogclose() == 0
                    ? 0
                    : 1);
      })),
      0);
  EXPECT_EQ(types() + in_file(1), "0");
  ::issusplog();
  EXPECT_EQ(count(2), 0);
  EXPECT_EQ(types() + in_file(2), "BW FO UP11");
  ::isresumlog();
  EXPECT_EQ(count(3) + ::islogclose(), 0);
  EXPECT_EQ(types() + in_file(3), "BW FO UP UP RW010");
}

// Whichever write fails, alone or with those behind it: the transaction is made whole, or cannot be
// committed and comes to nothing.
TEST_F(HeldBack, ComeToNothingWhenTheyCannotBeWritten) {
  constexpr int kChanges = 8;
  int lost = 0;
  for (int which = 0; which < 12; ++which) {
    const int in_a_row = std::array{1, 2, 3, INT_MAX}.at(static_cast<std::size_t>(which % 4));
    const bool together = which >= 4;
    for (int turn = 0;; ++turn) {
      begin();
      ::isbatch(which < 8 ? 1 : 0);
      common::system_calls().pwrite = write_or_fail;
      writes_left = turn;
      lost_in_a_row = in_a_row;
      std::string expected(kChanges, '0');
      if (together) {
        const int done = set_all({1, 2, 3, 4, 5, 6, 7, 8}, '1');
        if (done > 0) std::fill_n(expected.begin(), done, '1');
      }
      for (int id = 1; id <= kChanges && !together; ++id) {
        if (count(id) == 0) expected[static_cast<std::size_t>(id - 1)] = '1';
      }
      const bool committed = ::iscommit() == 0;
      const bool passed = writes_left >= 0;
      common::system_calls().pwrite = ::pwrite;
      const bool again = committed || ::iscommit() == 0;
      if (!again) {
        EXPECT_EQ(::isrollback(), 0) << iserrno;
        expected.assign(kChanges, '0');
        ++lost;
      }
      ::iscleanup();
      EXPECT_EQ(in_file(kChanges), expected) << "write " << turn << " of " << types();
      EXPECT_EQ(faults("pair"), "");
      restore_copy();
      EXPECT_EQ(::isrecover(), 0) << types();
      EXPECT_EQ(in_file(kChanges), expected) << "write " << turn << " of " << types();
      if (passed || HasFailure()) break;
    }
  }
  EXPECT_GT(lost, 30);
}

}  // namespace
}  // namespace testing_support
