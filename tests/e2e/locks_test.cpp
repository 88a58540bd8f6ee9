// What processes lock, as the others meet it and as it looks from outside.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <fstream>
#include <list>
#include <ostream>
#include <vector>

#include "tests/e2e/peer.h"
#include "tests/e2e/sessions.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

// ---- What a peer can be told.

int open(Session& session, int mode, int) { return session.open(mode); }
int close(Session& session, int, int) { return ::isclose(session.isfd); }
int read(Session& session, int mode, int id) { return session.read(mode, id); }
int lock(Session& session, int, int) { return ::islock(session.isfd); }
int unlock(Session& session, int, int) { return ::isunlock(session.isfd); }
int release(Session& session, int, int) { return ::isrelease(session.isfd); }
int ask_locked(Session& session, int how, int) { return ::isfilelocked(session.isfd, how); }
int batch(Session&, int how, int) { return ::isbatch(how); }
int erase(Session& session, int, int) { return ::iserase(session.base.c_str()); }
int delete_current(Session& session, int, int) { return ::isdelcurr(session.isfd); }
int delete_id(Session& session, int id, int) { return session.put({.id = id}, ::isdelete); }
int by_group(Session& session, int group, int) {
  session.row.group = group;
  return session.start(group_key(), RD_EQUAL);
}
int add(Session& session, int id, int group) { return session.put({id, group, 0}, ::iswrite); }
// Changes the current record.
int count(Session& session, int, int) {
  ++session.row.counter;
  return session.put(session.row, ::isrewcurr);
}
int regroup(Session& session, int id, int group) {
  return session.put({id, group, 0}, ::isrewrite);
}
int pause_next(Session&, int, int) {
  ::iserrno = 0;
  pause_before_read = true;
  return 0;
}
int pause_open(Session&, int, int) {
  ::iserrno = 0;
  pause_before_open_lock = true;
  return 0;
}
int meet_deadlocks(Session&, int times, int) {
  ::iserrno = 0;
  deadlocks_to_come = times;
  record_requests = 0;
  return 0;
}
int count_requests(Session&, int, int) {
  ::iserrno = 0;
  return record_requests;
}

// ---- Locks as another process sees them.

struct Lock {
  short type = F_UNLCK;
  off_t start = 0;
  off_t length = 0;
  pid_t process = 0;
  bool operator==(const Lock&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Lock& lock) {
  return out << "type " << lock.type << " start " << std::hex << lock.start << " length "
             << lock.length << std::dec << " process " << lock.process;
}

constexpr int kManual = ISINOUT | ISMANULOCK;

class Locks : public testing::Test {
 protected:
  // Records 1 to 9, with the ids 1 to 9.
  void SetUp() override { build_pair_of(base_, false, 9); }

  // The first lock in a range that would keep this process from locking it.
  [[nodiscard]] Lock held(off_t start, off_t length = 1) const {
    const int fd = ::open((base_ + ".idx").c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_start = start;
    lock.l_len = length;
    EXPECT_EQ(::fcntl(fd, F_GETLK, &lock), 0);
    ::close(fd);
    if (lock.l_type == F_UNLCK) return {};
    return {lock.l_type, lock.l_start, lock.l_len, lock.l_pid};
  }
  [[nodiscard]] static Lock record_lock(const Peer& peer, int number) {
    return {F_WRLCK, kRecords + number, 1, peer.process()};
  }
  [[nodiscard]] static Lock open_lock(const Peer& peer, short type) {
    return {type, kOpenLock, 1, peer.process()};
  }
  [[nodiscard]] static Lock file_lock(const Peer& peer) {
    return {F_WRLCK, kRecords, 0x3FFFFFFE, peer.process()};
  }
  [[nodiscard]] static Lock semaphore(const Peer& peer, short type) {
    return {type, 0, 0x3FFFFFFF, peer.process()};
  }

  // A peer that has the pair open.
  Peer& opened() {
    Peer& peer = peers_.emplace_back(base_);
    EXPECT_EQ(peer(open, kManual), 0);
    return peer;
  }

  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  std::list<Peer> peers_;
};

TEST_F(Locks, ARecordIsRefusedToOthersUntilItIsReleased) {
  Peer &a = opened(), &b = opened();
  ASSERT_EQ(a(read, RD_EQUAL | RD_LOCK, 3), 0);
  EXPECT_EQ(held(kRecords, 1000), record_lock(a, 3));
  EXPECT_EQ(b(read, RD_EQUAL, 3), 0);
  EXPECT_EQ(b(count), ISELOCKED);
  EXPECT_EQ(b(delete_current), ISELOCKED);
  EXPECT_EQ(b(delete_id, 3), ISELOCKED);
  EXPECT_EQ(b(read, RD_EQUAL | RD_LOCK, 3), ISELOCKED);
  EXPECT_EQ(b(read, RD_EQUAL | RD_LOCK, 4), 0);
  // Locking twice is once; both go together.
  EXPECT_EQ(a(read, RD_CURR | RD_LOCK), 0);
  EXPECT_EQ(a(read, RD_EQUAL | RD_LOCK, 1), 0);
  EXPECT_EQ(held(kRecords, 1000), record_lock(a, 1));
  EXPECT_EQ(a(release), 0);
  EXPECT_EQ(held(kRecords, 1000), record_lock(b, 4));
  EXPECT_EQ(b(read, RD_EQUAL | RD_LOCK, 3), 0);
  b.kill();
  EXPECT_EQ(held(kRecords, 1000), Lock{});
  EXPECT_EQ(a(read, RD_EQUAL | RD_LOCK, 3), 0);
  EXPECT_EQ(a(count), 0);
  EXPECT_EQ(a(delete_current), 0);
  EXPECT_EQ(held(kRecords, 1000), Lock{});
}

TEST_F(Locks, AReadStaysBeforeALockedRecordUnlessItSkips) {
  Peer &a = opened(), &b = opened();
  ASSERT_EQ(a(read, RD_EQUAL | RD_LOCK, 3), 0);
  ASSERT_EQ(b(read, RD_EQUAL, 2), 0);
  for (int times = 0; times < 2; ++times) EXPECT_EQ(b(read, RD_NEXT | RD_LOCK), ISELOCKED);
  EXPECT_EQ(b(read, RD_CURR), 0);
  EXPECT_EQ(b.last().row.id, 2);
  EXPECT_EQ(b(read, RD_NEXT | RD_LOCK | RD_SKIPLOCK), ISELOCKED);
  EXPECT_EQ(b.last().number, 3);
  EXPECT_EQ(b(read, RD_NEXT | RD_LOCK | RD_SKIPLOCK), 0);
  EXPECT_EQ(b.last().row.id, 4);
  EXPECT_EQ(b(read, RD_PREV | RD_LOCK), ISELOCKED);
  EXPECT_EQ(b(read, RD_PREV), 0);
  EXPECT_EQ(b.last().row.id, 3);
}

TEST_F(Locks, AWaitingReadSeesWhatTheHolderLeft) {
  Peer &a = opened(), &b = opened();
  ASSERT_EQ(a(read, RD_EQUAL | RD_LOCK, 3), 0);
  EXPECT_EQ(b(read, RD_EQUAL | RD_LOCK | RD_WAIT, 3), kWaits);
  EXPECT_EQ(a(read, RD_EQUAL, 5), 0);  // who waits keeps nobody from working
  EXPECT_EQ(a(read, RD_EQUAL, 3), 0);
  EXPECT_EQ(a(count), 0);
  EXPECT_EQ(a(release), 0);
  EXPECT_EQ(b.end(), 0);
  EXPECT_EQ(b.last().row.counter, 1);
  EXPECT_EQ(held(kRecords, 1000), record_lock(b, 3));

  // The record goes while another waits for it, with its holder.
  ASSERT_EQ(a(read, RD_EQUAL, 2), 0);
  EXPECT_EQ(a(read, RD_NEXT | RD_LOCK | RD_WAIT), kWaits);
  EXPECT_EQ(b(delete_current), 0);
  b.kill();
  EXPECT_EQ(a.end(), 0);
  EXPECT_EQ(a.last().row.id, 4);
}

TEST_F(Locks, AnAutomaticLockLastsUntilTheNextCall) {
  Peer a(base_), b(base_);
  ASSERT_EQ(a(open, ISINOUT | ISAUTOLOCK), 0);
  ASSERT_EQ(b(open, kManual), 0);
  ASSERT_EQ(b(read, RD_EQUAL, 3), 0);
  EXPECT_EQ(a(read, RD_EQUAL, 3), 0);
  EXPECT_EQ(held(kRecords, 1000), record_lock(a, 3));
  EXPECT_EQ(b(count), ISELOCKED);
  EXPECT_EQ(a(read, RD_NEXT), 0);
  EXPECT_EQ(held(kRecords, 1000), record_lock(a, 4));
  EXPECT_EQ(b(read, RD_EQUAL | RD_LOCK, 3), 0);
  EXPECT_EQ(a(read, RD_PREV), ISELOCKED);
  EXPECT_EQ(a(read, RD_EQUAL | RD_WAIT, 3), kWaits);
  EXPECT_EQ(b(release), 0);
  EXPECT_EQ(a.end(), 0);
  EXPECT_EQ(a(lock), ISENOTMANUAL);
  EXPECT_EQ(a(unlock), ISENOTMANUAL);
  EXPECT_EQ(held(kRecords, 1000), Lock{});
}

TEST_F(Locks, AFileLockStandsAgainstAllLocksOfOthers) {
  Peer &a = opened(), &b = opened();
  EXPECT_EQ(b(read, RD_EQUAL | RD_LOCK, 5), 0);
  EXPECT_EQ(a(lock), ISELOCKED);
  EXPECT_EQ(b(release), 0);
  EXPECT_EQ(a(read, RD_EQUAL | RD_LOCK, 6), 0);
  EXPECT_EQ(a(lock), 0);
  EXPECT_EQ(held(kRecords, 0x40000000 - 1), file_lock(a));
  EXPECT_EQ(b(lock), ISELOCKED);
  EXPECT_EQ(b(read, RD_EQUAL | RD_LOCK, 5), ISELOCKED);
  EXPECT_EQ(b(read, RD_EQUAL, 5), 0);
  EXPECT_EQ(b(count), ISELOCKED);
  EXPECT_EQ(b(ask_locked, 0), 0);
  EXPECT_EQ(b.last().result, 1);
  EXPECT_EQ(a(ask_locked, 0), 0);
  EXPECT_EQ(a.last().result, 0);
  EXPECT_EQ(a(count), 0);
  EXPECT_EQ(b(ask_locked, 1), kWaits);
  EXPECT_EQ(a(unlock), 0);
  EXPECT_EQ(b.end(), 0);
  EXPECT_EQ(b.last().result, 0);
  EXPECT_EQ(held(kRecords, 0x40000000 - 1), Lock{});
  EXPECT_EQ(b(lock), 0);
  EXPECT_EQ(a(lock), ISELOCKED);
  b.kill();
  EXPECT_EQ(a(lock), 0);
}

TEST_F(Locks, AnExclusiveOpenAndOthersKeepEachOtherOut) {
  Peer a(base_), b(base_);
  ASSERT_EQ(a(open, kManual), 0);
  EXPECT_EQ(held(kOpenLock), open_lock(a, F_RDLCK));
  EXPECT_EQ(b(open, ISINOUT | ISEXCLLOCK), ISEINUSE);
  EXPECT_EQ(b(erase), ISEINUSE);
  // A process is not in its own way.
  EXPECT_EQ(a(open, ISINOUT | ISEXCLLOCK), 0);
  EXPECT_EQ(held(kOpenLock), open_lock(a, F_WRLCK));
  EXPECT_EQ(b(open, kManual), ISEINUSE);
  EXPECT_EQ(a(close), 0);
  EXPECT_EQ(held(kOpenLock), open_lock(a, F_RDLCK));
  EXPECT_EQ(b(open, ISINPUT | ISAUTOLOCK), 0);
  a.kill();
  EXPECT_EQ(held(kOpenLock), open_lock(b, F_RDLCK));
  EXPECT_EQ(b(close), 0);
  EXPECT_EQ(held(0, kOpenLock), Lock{});

  Peer c(base_);
  EXPECT_EQ(b(open, ISINOUT | ISEXCLLOCK), 0);
  EXPECT_EQ(b(read, RD_FIRST | RD_LOCK), 0);
  EXPECT_EQ(held(0, kOpenLock), Lock{});  // needs no other lock
  for (const int mode : {kManual, ISINOUT | ISEXCLLOCK, ISINPUT | ISAUTOLOCK}) {
    EXPECT_EQ(c(open, mode), ISEINUSE);
  }
  b.kill();
  EXPECT_EQ(c(open, ISINOUT | ISEXCLLOCK), 0);
}

TEST_F(Locks, AnOpenGoesByWhatAnExclusiveOneHasLeft) {
  Peer a(base_), b(base_);
  ASSERT_EQ(a(open, ISINOUT | ISEXCLLOCK), 0);
  for (int id = 20; id < 60; ++id) ASSERT_EQ(a(add, id, 1), 0);
  b(pause_open);
  EXPECT_EQ(b(open, ISINOUT | ISEXCLLOCK), kPaused);
  EXPECT_EQ(a(close), 0);
  EXPECT_EQ(b.go_on(), 0);
  for (int id = 60; id < 80; ++id) EXPECT_EQ(b(add, id, 1), 0);
  EXPECT_EQ(b(close), 0);
  EXPECT_EQ(a(open, kManual), 0);
  for (int id = 20; id < 80; ++id) EXPECT_EQ(a(read, RD_EQUAL, id), 0) << id;
}

TEST_F(Locks, ReadersShareTheFileAndWritersTakeTurns) {
  Peer &a = opened(), &b = opened();
  ASSERT_EQ(b(read, RD_FIRST), 0);
  a(pause_next);
  EXPECT_EQ(a(read, RD_FIRST), kPaused);
  EXPECT_EQ(held(0), semaphore(a, F_RDLCK));
  EXPECT_EQ(b(read, RD_CURR), 0);
  EXPECT_EQ(b(count), kWaits);
  EXPECT_EQ(a.go_on(), 0);
  EXPECT_EQ(b.end(), 0);
  a(pause_next);
  EXPECT_EQ(a(add, 20, 2), kPaused);
  EXPECT_EQ(held(0), semaphore(a, F_WRLCK));
  EXPECT_EQ(b(read, RD_FIRST), kWaits);
  a.kill();
  EXPECT_EQ(b.end(), 0);
  EXPECT_EQ(held(0), Lock{});
}

TEST_F(Locks, BatchModeKeepsTheFileForSixCalls) {
  Peer &a = opened(), &b = opened();
  a(batch, 1);
  for (int call = 1; call <= 6; ++call) {
    EXPECT_EQ(a(read, RD_NEXT), 0);
    EXPECT_EQ(held(0), call < 6 ? semaphore(a, F_WRLCK) : Lock{}) << call;
  }
  EXPECT_EQ(a(add, 20, 2), 0);
  EXPECT_EQ(b(read, RD_EQUAL, 20), kWaits);
  a(batch, 0);
  EXPECT_EQ(b.end(), 0);
  EXPECT_EQ(a(read, RD_FIRST), 0);
  EXPECT_EQ(held(0), Lock{});
}

// Until the system has the process wait for a lock: its answer comes a little earlier.
void await_blocked(const Peer& peer) {
  const std::string process = ' ' + std::to_string(peer.process()) + ' ';
  for (int tries = 0; tries < 10'000; ++tries) {
    std::ifstream locks("/proc/locks");
    for (std::string entry; std::getline(locks, entry);) {
      if (entry.find("->") != entry.npos && entry.find(process) != entry.npos) return;
    }
    ::usleep(1000);
  }
}

TEST_F(Locks, RefusesWhoWouldCloseACircle) {
  Peer &a = opened(), &b = opened();
  ASSERT_EQ(a(read, RD_EQUAL | RD_LOCK, 1), 0);
  ASSERT_EQ(b(read, RD_EQUAL | RD_LOCK, 2), 0);
  EXPECT_EQ(a(read, RD_EQUAL | RD_LOCK | RD_WAIT, 2), kWaits);
  await_blocked(a);
  EXPECT_EQ(b(read, RD_EQUAL | RD_LOCK | RD_WAIT, 1), kWaits);
  EXPECT_EQ(b.end(), ISELOCKED);
  EXPECT_EQ(b(release), 0);
  EXPECT_EQ(a.end(), 0);
}

TEST_F(Locks, TriesAgainAfterADeadlockAsOftenAsItMay) {
  const struct {
    std::vector<std::string> environment;
    int deadlocks;
    int error;
    int requests;
  } cases[] = {
      {{}, 1, ISELOCKED, 1},
      {{"ISAM_DEADLOCK_COUNT=3", "ISAM_DEADLOCK_SLEEP=1"}, 9, ISELOCKED, 4},
      {{"ISAM_DEADLOCK_COUNT=3", "ISAM_DEADLOCK_SLEEP=-1"}, 3, 0, 4},
      {{"ISAM_DEADLOCK_COUNT=0x2"}, 9, ISELOCKED, 3},
      {{"ISAM_DEADLOCK_COUNT=-4"}, 1, ISELOCKED, 1},
  };
  for (const auto& [environment, deadlocks, error, requests] : cases) {
    Peer peer(base_, environment);
    ASSERT_EQ(peer(open, kManual), 0);
    peer(meet_deadlocks, deadlocks);
    EXPECT_EQ(peer(read, RD_EQUAL | RD_LOCK, 3), error);
    peer(count_requests);
    EXPECT_EQ(peer.last().result, requests);
    if (error != 0) continue;
    // What is locked already is not asked for again.
    EXPECT_EQ(peer(read, RD_CURR | RD_LOCK), 0);
    peer(count_requests);
    EXPECT_EQ(peer.last().result, requests);
  }
}

TEST_F(Locks, WhatAnotherProcessChangedIsSeenAtOnceFromTheOldPosition) {
  Peer &a = opened(), &b = opened();
  const auto expect_read = [&a](int mode, int id) {
    EXPECT_EQ(a(read, mode), 0);
    EXPECT_EQ(a.last().row.id, id);
  };
  ASSERT_EQ(a(by_group, 1), 0);  // 3, 4 and 5
  expect_read(RD_NEXT, 3);
  expect_read(RD_NEXT, 4);
  ASSERT_EQ(b(read, RD_EQUAL, 4), 0);
  ASSERT_EQ(b(count), 0);
  expect_read(RD_CURR, 4);
  EXPECT_EQ(a.last().row.counter, 1);

  // The trees grow, and the record behind the position goes.
  ASSERT_EQ(b(delete_id, 5), 0);
  for (int id = 100; id < 140; ++id) ASSERT_EQ(b(add, id, 1), 0);
  expect_read(RD_NEXT, 100);
  expect_read(RD_PREV, 4);
  // So does the one at the position: deleted, or under another key now.
  ASSERT_EQ(b(delete_id, 4), 0);
  for (const Call call : {Call{delete_current}, Call{count}}) EXPECT_EQ(a(call), ISENOCURRENT);
  EXPECT_EQ(a(read, RD_CURR), ISENOCURRENT);
  expect_read(RD_NEXT, 100);
  ASSERT_EQ(b(regroup, 100, 0), 0);
  EXPECT_EQ(a(read, RD_CURR), ISENOCURRENT);
  expect_read(RD_PREV, 3);
  // They shrink again.
  for (int id = 101; id < 139; ++id) ASSERT_EQ(b(delete_id, id), 0);
  expect_read(RD_NEXT, 139);
  expect_read(RD_NEXT, 6);
  expect_read(RD_FIRST, 1);
  expect_read(RD_NEXT, 2);
  expect_read(RD_NEXT, 100);
}

}  // namespace
}  // namespace testing_support
