// Several processes on one pair: what they do to each other's records, locks and caches, and what
// a killed one leaves behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <random>
#include <set>

#include "common/io.h"
#include "tests/e2e/sessions.h"

namespace testing_support {
namespace {

bool is_running(pid_t process) {
  siginfo_t info{};
  ::waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT);
  return info.si_pid == 0;
}

// The rows of a pair that has no fault in anybody's eyes.
std::vector<Row> sound_rows(const std::string& base, bool varying) {
  expect_nothing_found(kestro("-nq", base));
  const Walk walk = walk_pair(base);
  EXPECT_EQ(walk.problems, std::vector<std::string>{});
  std::vector<Row> rows;
  for (const auto& [number, image] : walk.records) {
    Row row;
    EXPECT_TRUE(parse(std::string(image.begin(), image.end()), varying, row)) << number;
    rows.push_back(row);
  }
  return rows;
}

constexpr int kProcesses = 5;

// ---- Everybody counts in the same records.

constexpr int kIds = 60;

struct Tally {
  std::array<int, kIds + 1> added;    // to the counter of each id
  std::array<int, kIds + 1> removed;  // with the records of each id
  int call = 0;                       // line of the first call that failed as it must not, and why
  int reason = 0;
};

class Counting {
 public:
  Counting(const std::string& base, bool varying, int lock, unsigned seed, Tally& tally)
      : session_{base, varying}, automatic_(lock == ISAUTOLOCK), random_(seed), tally_(tally) {
    check(session_.open(ISINOUT | lock) >= 0, {}, __LINE__);
  }

  void run(int rounds) {
    for (; rounds > 0; --rounds) {
      const int id = 1 + any(kIds);
      const int pick = any(10);
      if (pick < 5) {
        count(id);
      } else if (pick < 6) {
        remove(id);
      } else if (pick < 8) {
        add({{id, any(8), 0}, {1 + any(kIds), any(8), 0}, {1 + any(kIds), any(8), 0}});
      } else {
        look_along();
      }
    }
    check(::isclose(session_.isfd) == 0, {}, __LINE__);
  }

 private:
  int any(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

  // A call that fails for another reason than those given is noted.
  bool check(bool good, std::set<int> reasons, int line) {
    if (!good && !reasons.contains(::iserrno) && tally_.call == 0) {
      tally_.call = line;
      tally_.reason = ::iserrno;
    }
    return good;
  }

  bool lock(int id) {
    const int how = automatic_ ? any(2) * RD_WAIT : RD_LOCK + any(2) * RD_WAIT;
    return check(session_.read(RD_EQUAL + how, id) == 0, {ISENORECORD, ISELOCKED}, __LINE__);
  }
  // An automatic lock goes when the next call comes, and a process that waits may get it.
  bool changed(int result) {
    return check(result == 0, automatic_ ? std::set<int>{ISELOCKED} : std::set<int>{}, __LINE__);
  }
  void unlock() {
    if (!automatic_) check(::isrelease(session_.isfd) == 0, {}, __LINE__);
  }

  void count(int id) {
    if (!lock(id)) return;
    const Row fresh{id, any(8), session_.row.counter + 1};
    const int way = any(3);
    const int result = way == 0   ? session_.put(fresh, ::isrewcurr)
                       : way == 1 ? session_.put(fresh, ::isrewrite)
                                  : session_.put(fresh, ::isrewrec, ::isrecnum);
    if (changed(result)) ++tally_.added[static_cast<std::size_t>(id)];
    unlock();
  }

  void remove(int id) {
    if (!lock(id)) return;
    const int counter = session_.row.counter;
    if (changed(::isdelcurr(session_.isfd))) {
      tally_.removed[static_cast<std::size_t>(id)] += counter;
    }
    unlock();
  }

  void add(const std::vector<Row>& rows) {
    RowSet several(rows, session_.varying);
    const bool all = ::iswritemany(session_.isfd, &several.set) == several.set.count;
    check(all, {ISEDUPLICATE, ISELOCKED}, __LINE__);
  }

  // Whatever the others do, the groups come in order.
  void look_along() {
    session_.row.group = any(8);
    if (!check(session_.start(group_key(), RD_GTEQ) == 0, {ISENORECORD}, __LINE__))
      return start_over();
    for (int steps = 6, group = session_.row.group; steps > 0; --steps) {
      if (!check(session_.read(RD_NEXT) == 0, {ISEEND, ISELOCKED}, __LINE__)) break;
      if (session_.row.group < group) std::abort();
      group = session_.row.group;
    }
    start_over();
  }
  void start_over() { check(session_.start(id_key(), RD_FIRST) == 0, {}, __LINE__); }

  Session session_;
  bool automatic_;
  std::mt19937 random_;
  Tally& tally_;
};

struct Case {
  bool varying;
  int round;
};

class Processes : public testing::TestWithParam<Case> {
 protected:
  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  const bool varying_ = GetParam().varying;
};

TEST_P(Processes, LoseNoUpdateUnderRecordLocks) {
  build_pair_of(base_, varying_, kIds / 2);
  const Common<std::array<Tally, kProcesses>> tallies;
  std::vector<pid_t> processes;
  for (unsigned i = 0; i < kProcesses; ++i) {
    processes.push_back(start_process([&] {
      Counting(base_, varying_, i == 0 ? ISAUTOLOCK : ISMANULOCK, i, (*tallies)[i]).run(1500);
    }));
  }
  for (const pid_t process : processes) EXPECT_EQ(end_of(process), 0);

  std::array<int, kIds + 1> expected{};
  int counted = 0;
  for (const Tally& tally : *tallies) {
    EXPECT_EQ(tally.call, 0) << "failed with " << tally.reason;
    for (std::size_t id = 1; id <= kIds; ++id) {
      expected[id] += tally.added[id] - tally.removed[id];
      counted += tally.added[id];
    }
  }
  EXPECT_GT(counted, 1000);
  for (const Row& row : sound_rows(base_, varying_)) {
    EXPECT_EQ(row.counter, std::exchange(expected[static_cast<std::size_t>(row.id)], 0)) << row.id;
  }
  EXPECT_EQ(expected, (std::array<int, kIds + 1>{}));  // nothing is left of those not there
}

// ---- Some are killed. Every process changes records of its own, which stand between the others'.

constexpr int kOwn = 25;
constexpr int kVictims = 3;
constexpr int kAbsent = -1;

// Counter of one record: after the last call that returned, and after the one under way.
struct Claim {
  int sure = kAbsent;
  int aimed = kAbsent;
};

struct Journal {
  std::atomic<int> calls = 0;
  std::atomic<int> good = 0;
  std::array<Claim, kOwn> claims;
};

struct Stage {
  std::atomic<bool> dead = false;  // whether the victims are
  std::array<Journal, kProcesses> journals;
};

class Writing {
 public:
  Writing(const std::string& base, bool varying, unsigned seed, int process, Journal& journal)
      : session_{base, varying}, random_(seed), process_(process), journal_(journal) {
    if (session_.open(ISINOUT | ISMANULOCK) < 0) ::_exit(1);
  }

  void run(int calls) {
    for (; calls > 0; --calls) {
      change(any(kOwn));
      ++journal_.calls;
    }
  }

 private:
  int any(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

  // A call that fails changes nothing, whatever it met.
  void change(int i) {
    Claim& claim = journal_.claims[static_cast<std::size_t>(i)];
    const int next = claim.sure == kAbsent ? 0 : any(4) == 0 ? kAbsent : claim.sure + 1;
    const Row row{i * kProcesses + process_, any(8), next == kAbsent ? claim.sure : next};
    claim.aimed = next;
    const bool good = claim.sure == kAbsent ? session_.put(row, ::iswrite) == 0
                      : next == kAbsent     ? session_.put(row, ::isdelete) == 0
                                            : rewrite(row);
    if (good) {
      claim.sure = next;
      ++journal_.good;
    }
    claim.aimed = claim.sure;
  }

  bool rewrite(const Row& row) {
    if (any(2) == 0) return session_.put(row, ::isrewrite) == 0;
    const bool good =
        session_.read(RD_EQUAL | RD_LOCK, row.id) == 0 && session_.put(row, ::isrewcurr) == 0;
    ::isrelease(session_.isfd);
    return good;
  }

  Session session_;
  std::mt19937 random_;
  int process_;
  Journal& journal_;
};

// What the system calls of the processes under test do besides.
struct Doom {
  Stage* stage = nullptr;
  int writes = -1;          // the process is killed at this write
  bool stop_after = false;  // ... and the others get no further
};
Doom doom;

ssize_t write_or_be_killed(int fd, const void* from, std::size_t count, off_t offset) {
  if (doom.writes >= 0 && doom.writes-- == 0) {
    doom.stage->dead = doom.stop_after;
    ::kill(::getpid(), SIGKILL);
  }
  return ::pwrite(fd, from, count, offset);
}

int lock_or_stop(int fd, int command, struct flock* lock) {
  const int result = ::fcntl(fd, command, lock);
  if (doom.stop_after && doom.stage->dead) ::_exit(0);
  return result;
}

// Where a variable part was being written, its record may not fit the storage: that stays.
constexpr char kTorn[] = "ERROR: (bad data record\n|Corrupt variable length record storage page)";

class Killed : public Processes {
 protected:
  void SetUp() override { build_pair_of(base_, varying_, 0); }

  // Starts process number `i` of the round.
  template <typename Work>
  void start(int i, const Doom& its_doom, Work work) {
    const auto seed = static_cast<unsigned>(random_());
    processes_.push_back(start_process([&] {
      doom = its_doom;
      doom.stage = &*stage_;
      common::system_calls().pwrite = write_or_be_killed;
      common::system_calls().fcntl_lock = lock_or_stop;
      Writing writing(base_, varying_, seed, i, stage_->journals[static_cast<std::size_t>(i)]);
      work(writing);
    }));
  }
  int any(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

  void expect_completed_calls() {
    const std::map<int, int> counters = counters_in(base_, varying_, 0, kOwn * kProcesses - 1);
    for (std::size_t i = 0; i < kOwn * kProcesses; ++i) {
      const auto at = counters.find(static_cast<int>(i));
      const int counter = at == counters.end() ? kAbsent : at->second;
      const Claim& claim = stage_->journals[i % kProcesses].claims[i / kProcesses];
      const bool torn = varying_ && claim.sure != claim.aimed && counter == kAbsent;
      EXPECT_TRUE(counter == claim.sure || counter == claim.aimed || torn)
          << "record " << i << ": " << counter << " instead of " << claim.sure;
    }
  }

  const Common<Stage> stage_;
  std::mt19937 random_{static_cast<unsigned>(GetParam().round)};
  std::vector<pid_t> processes_;
};

TEST_P(Killed, LosesNoCompletedCallOfAnybody) {
  for (int i = 0; i < kProcesses; ++i) {
    const Doom its_doom{.writes = i == 0 ? any(600) : -1, .stop_after = true};
    start(i, its_doom, [](Writing& writing) {
      while (true) writing.run(100);
    });
  }
  for (int i = 0; i < kProcesses; ++i) {
    EXPECT_EQ(end_of(processes_[static_cast<std::size_t>(i)]), i == 0 ? SIGKILL : 0);
  }
  expect_repaired(base_, varying_ ? kTorn : "");
  expect_completed_calls();
}

// The others go on with the pair as it was left.
TEST_P(Killed, HarmsNoCallThatTheOthersCompleteAfterwards) {
  for (int i = 0; i < kProcesses; ++i) {
    // One of the victims is killed from outside; one that has nothing left to write, by itself.
    start(i, {.writes = i < kVictims - 1 ? any(600) : -1}, [&](Writing& writing) {
      writing.run(100);
      if (i < kVictims - 1) {
        writing.run(1000);
        ::kill(::getpid(), SIGKILL);
      }
      while (!stage_->dead && i >= kVictims) ::sched_yield();
      while (i < kVictims) writing.run(1);
      writing.run(100);
    });
  }
  const int calls = any(200);
  const pid_t last = processes_[kVictims - 1];
  while (stage_->journals[kVictims - 1].calls < calls && is_running(last)) ::sched_yield();
  ::kill(last, SIGKILL);
  for (int i = 0; i < kProcesses; ++i) {
    EXPECT_EQ(end_of(processes_[static_cast<std::size_t>(i)]), i < kVictims ? SIGKILL : 0);
    stage_->dead = i >= kVictims - 1;
  }
  expect_repaired(base_, varying_ ? kTorn : "");
  expect_completed_calls();
}

std::vector<Case> cases(int rounds) {
  std::vector<Case> all;
  for (int round = 0; round < rounds; ++round) {
    all.push_back({false, round});
    all.push_back({true, round});
  }
  return all;
}

std::string name_of(const testing::TestParamInfo<Case>& test) {
  return (test.param.varying ? "varying" : "fixed") + std::to_string(test.param.round);
}

INSTANTIATE_TEST_SUITE_P(Pairs, Processes, testing::ValuesIn(cases(1)), name_of);
INSTANTIATE_TEST_SUITE_P(Pairs, Killed, testing::ValuesIn(cases(8)), name_of);

}  // namespace
}  // namespace testing_support
