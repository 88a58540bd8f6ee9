// Processes under one log, killed wherever they are: what a recovery makes of the files restored
// from a copy must be what was committed, neither more nor less.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <vector>

#include "common/io.h"
#include "tests/support/child_process.h"
#include "tests/support/common_memory.h"
#include "tests/txlog/log_worker.h"

namespace testing_support {
namespace {

int rounds() {
  const char* const text = std::getenv("KESTRO_CRASH_ROUNDS");
  return text == nullptr ? 6 : std::atoi(text);
}

// What is first amiss, in the order of ids; nothing when all is as expected.
std::string difference(const Rows& found, const Rows& expected) {
  const auto [have, want] = std::ranges::mismatch(found, expected);
  if (have == found.end() && want == expected.end()) return "";
  const auto start = [](auto at, const Rows& rows) {
    return at == rows.end() ? "none" : at->substr(0, kLeast);
  };
  return start(have, found) + " instead of " + start(want, expected);
}

class Crashes : public LogTest {
 protected:
  void prepare(const Extent& extent) {
    extent_ = extent;
    build_files(extent);
    keep_copy();
  }

  // The state at the start: the files as copied, and a log without a record.
  void start_over() {
    write_file("log", {});
    EXPECT_EQ(::islogopen("log"), 0);
    EXPECT_EQ(::islogclose(), 0);
    restore_copy();
    started_.clear();
    for (Journal& journal : *journals_) journal.clear();
  }

  pid_t start_worker(int number, unsigned seed, int steps) {
    Journal& journal = element(*journals_, number);
    const pid_t process = start_process([&] {
      Worker worker(number, extent_, journal, seed);
      for (; steps > 0 && journal.line == 0; --steps) worker.step();
      if (steps == 0) worker.finish();
    });
    started_.emplace_back(process, number);
    return process;
  }

  // The units of each worker that the log holds. What was under way may be among them.
  void note_units(const Image& log) {
    std::array<int, kWorkers> units{};
    const auto units_of_process = units_in(log);
    for (const auto& [process, number] : started_) {
      const auto found = units_of_process.find(process);
      if (found != units_of_process.end()) element(units, number) += found->second;
    }
    for (std::size_t i = 0; i < kWorkers; ++i) {
      Journal& journal = (*journals_)[i];
      EXPECT_EQ(journal.line, 0) << "failed with " << journal.reason;
      EXPECT_GE(units[i], journal.units) << "worker " << i;
      EXPECT_LE(units[i], journal.units + 1) << "worker " << i;
      journal.units = units[i];
    }
  }

  [[nodiscard]] Rows expected_rows(int file) const {
    std::map<int, std::string> expected;
    for (std::size_t i = 0; i < kWorkers; ++i) {
      Journal& journal = (*journals_)[i];
      const auto& versions = element(journal.after(journal.units).versions, file);
      for (int slot = 0; slot < kOwn; ++slot) {
        const int version = element(versions, slot);
        const int id = id_of(static_cast<int>(i), slot);
        if (version != 0) expected[id] = record_of(file, id, version, extent_);
      }
    }
    Rows rows;
    for (auto& [id, record] : expected) rows.push_back(std::move(record));
    return rows;
  }

  void expect_committed_work() {
    for (int file = 0; file < extent_.files; ++file) {
      const int isfd = ::isopen(name_of_file(file).c_str(), ISINPUT + ISMANULOCK + ISANYLENGTH);
      ASSERT_GE(isfd, 0);
      Rows by_both = rows(isfd, group_and_id_key());
      EXPECT_EQ(difference(rows(isfd), expected_rows(file)), "") << name_of_file(file);
      std::ranges::sort(by_both);
      EXPECT_EQ(difference(by_both, expected_rows(file)), "");
      EXPECT_EQ(::isclose(isfd), 0);
      EXPECT_EQ(walk_pair(name_of_file(file)).problems, std::vector<std::string>{});
    }
  }

  void recover_and_compare() {
    restore_copy();
    ASSERT_EQ(::islogopen("log"), 0);
    ASSERT_EQ(::isrecover(), 0) << iserrno;
    expect_committed_work();
    ::iscleanup();
  }

  void expect_nothing_found() {
    for (int file = 0; file < extent_.files; ++file) EXPECT_EQ(faults(name_of_file(file)), "");
  }

  const Common<std::array<Journal, kWorkers>> journals_;
  std::vector<std::pair<pid_t, int>> started_;
  Extent extent_;
};

// ---- Several processes are killed at once, again and again under the same log.

constexpr int kLives = 3;

// No process sees what another leaves half done: all stand still before the first is killed.
void kill_all(const std::vector<pid_t>& processes) {
  for (const pid_t process : processes) ::kill(process, SIGSTOP);
  for (const pid_t process : processes) ::waitpid(process, nullptr, WUNTRACED);
  for (const pid_t process : processes) ::kill(process, SIGKILL);
  for (const pid_t process : processes) EXPECT_EQ(end_of(process), SIGKILL);
}

TEST_F(Crashes, OfSeveralProcessesLeaveWhatWasCommitted) {
  std::minstd_rand random{static_cast<unsigned>(::getpid())};
  prepare({});
  int units = 0, rollbacks = 0, refused = 0;
  for (int round = 0; round < rounds() && !HasFailure(); ++round) {
    start_over();
    for (int life = 0; life < kLives && !HasFailure(); ++life) {
      std::vector<pid_t> workers;
      for (int i = 0; i < kWorkers; ++i)
        workers.push_back(start_worker(i, static_cast<unsigned>(random()), INT_MAX));
      ::usleep(static_cast<useconds_t>(random() % 40000));
      kill_all(workers);
      note_units(read_file("log"));
      recover_and_compare();
    }
    expect_nothing_found();
    for (Journal& journal : *journals_) {
      units += journal.units;
      rollbacks += journal.rollbacks;
      refused += journal.refused;
    }
  }
  std::printf("%d units, %d rollbacks, %d refused locks\n", units, rollbacks, refused);
  EXPECT_GT(units, rounds());
}

// ---- One process, killed at every single write.

int writes_left = 0;
bool half_is_written = false;

ssize_t write_or_be_killed(int fd, const void* from, std::size_t count, off_t offset) {
  if (writes_left-- == 0) {
    const ssize_t written = half_is_written ? ::pwrite(fd, from, count / 2, offset) : 0;
    static_cast<void>(written);
    ::kill(::getpid(), SIGKILL);
  }
  return ::pwrite(fd, from, count, offset);
}

// No change is in a file before its image is in the log.
void expect_in_log(const std::string& pair) {
  const Image log = read_file("log");
  for (const auto& [number, record] : walk_pair(pair).records) {
    const auto found = std::search(log.begin(), log.end(), record.begin(), record.end());
    EXPECT_NE(found, log.end()) << "record " << number;
  }
}

class AtAnyWrite : public Crashes {
 protected:
  void kill_and_compare(const Extent& extent, int steps);
};

void AtAnyWrite::kill_and_compare(const Extent& extent, int steps) {
  prepare(extent);
  int kills = 0;
  for (int writes = 0, status = SIGKILL; status == SIGKILL && !HasFatalFailure(); ++writes) {
    for (const bool half : {false, true}) {
      SCOPED_TRACE(writes);
      start_over();
      common::system_calls().pwrite = write_or_be_killed;
      writes_left = writes;
      half_is_written = half;
      status = end_of(start_worker(0, 7, steps));
      common::system_calls().pwrite = ::pwrite;
      kills += status == SIGKILL;
      if (!half) expect_in_log(name_of_file(0));
      note_units(read_file("log"));
      recover_and_compare();
      if (!half || writes % 3 != 0 || HasFailure()) continue;
      // Another process goes on with what was recovered and with the log as it was left.
      ASSERT_EQ(end_of(start_worker(0, 8, 2)), 0);
      note_units(read_file("log"));
      recover_and_compare();
    }
  }
  expect_nothing_found();
  EXPECT_GT(journals_->front().rollbacks, 0);
  EXPECT_GT(kills, 100);
}

TEST_F(AtAnyWrite, LeaveWhatWasCommitted) { kill_and_compare({.files = 2, .own = 6}, 6); }

// Without a change of keys, so that much is held back.
TEST_F(AtAnyWrite, LeaveWhatWasCommittedInBatches) {
  kill_and_compare({.files = 1, .own = 6, .groups = 1, .in_batches = true}, 12);
}

// ---- The log ends anywhere within its last records.

// ---- What a rollback leaves.

class Rollbacks : public Crashes {};

TEST_F(Rollbacks, LeaveWhatWasThereBefore) {
  prepare({});
  Journal& journal = journals_->front();
  Worker worker(0, extent_, journal, 3);
  while (journal.units < 40) worker.step();
  for (int round = 0; round < 10 * rounds() && !HasFailure(); ++round) {
    std::array<std::map<std::int32_t, Image>, kFiles> before;
    for (int file = 0; file < kFiles; ++file) {
      element(before, file) = walk_pair(name_of_file(file)).records;
    }
    worker.roll_back();
    expect_committed_work();
    for (int file = 0; file < kFiles; ++file) {
      EXPECT_TRUE(element(before, file) == walk_pair(name_of_file(file)).records);
    }
    worker.step();
  }
  EXPECT_EQ(journal.line, 0) << "failed with " << journal.reason;
  worker.finish();
  expect_nothing_found();
}

}  // namespace
}  // namespace testing_support
