// Repairs that are cut short: killed at every write, or refused by a full disk. The checker runs
// in a child process of its own, with its writes counted.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "checker/dialogue.h"
#include "checker/driver.h"
#include "common/io.h"
#include "tests/support/damage.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

constexpr int kKilled = 77;
int writes_left = 0;

ssize_t write_or_die(int fd, const void* from, std::size_t count, off_t offset) {
  if (writes_left-- == 0) ::_exit(kKilled);
  return ::pwrite(fd, from, count, offset);
}

ssize_t write_or_full(int fd, const void* from, std::size_t count, off_t offset) {
  if (writes_left-- <= 0) {
    errno = ENOSPC;
    return -1;
  }
  return ::pwrite(fd, from, count, offset);
}

using Write = ssize_t (*)(int, const void*, std::size_t, off_t);

// Runs `kestro -yq` in a child whose writes go through `write`; its exit status.
int repair(const std::string& base, const std::string& report, Write write, int writes) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (std::freopen(report.c_str(), "w", stdout) == nullptr) ::_exit(1);
    writes_left = writes;
    common::system_calls().pwrite = write;
    checker::options.yflag = checker::options.qflag = 1;
    checker::ckfile(base);
    std::fflush(stdout);
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string check(const std::string& options, const std::string& base) {
  return run_program({.words = {KESTRO_PROGRAM, options, base}, .seconds = 30}).out;
}

class Interrupted : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    base_ = folder_ / "pair";
    built_ = build_pair(fault_spec(GetParam()), base_);
    PairEditor editor(built_);
    // Every kind of repair has something to do.
    put4(editor.dictionary() + dict::kFreeData, 99999);
    put4(editor.dictionary() + dict::kFreeNode, 99999);
    put2(editor.dictionary() + dict::kKeys, 7);
    for (const BuiltIndex& index : built_.indexes) put2(editor.node(index.leaves.back()), 2);
    if (GetParam()) put4(editor.dictionary() + dict::kStorageHeads + 4, 99999);
    damaged_index_ = editor.index;
    damaged_data_ = editor.data;
    restore();
    records_ = walk_pair(base_).records;
  }

  void restore() const {
    write_file(base_ + ".idx", damaged_index_);
    write_file(base_ + ".dat", damaged_data_);
  }

  void expect_second_run_mends() {
    EXPECT_EQ(read_file(base_ + ".dat"), damaged_data_);
    check("-yq", base_);
    const Walk after = walk_pair(base_);
    ASSERT_EQ(after.problems, std::vector<std::string>{});
    ASSERT_TRUE(after.records == records_);
    ASSERT_EQ(check("-nq", base_).find("ERROR"), std::string::npos);
  }

  TempFolder folder_;
  std::string base_;
  BuiltPair built_;
  Image damaged_index_;
  Image damaged_data_;
  std::map<std::int32_t, Image> records_;
};

TEST_P(Interrupted, AKillAtAnyWriteIsMendedByTheNextRun) {
  int writes = 0;
  while (repair(base_, folder_ / "report", write_or_die, writes) == kKilled) {
    SCOPED_TRACE(writes);
    expect_second_run_mends();
    restore();
    ++writes;
  }
  EXPECT_GT(writes, 10);
  EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
}

TEST_P(Interrupted, AFullDiskIsReportedAndMendedByTheNextRun) {
  for (int writes = 0;; writes += 1 + writes / 4) {
    SCOPED_TRACE(writes);
    ASSERT_EQ(repair(base_, folder_ / "report", write_or_full, writes), 0);
    const Image bytes = read_file(folder_ / "report");
    const std::string report(bytes.begin(), bytes.end());
    if (report.find("SYSTEM ERROR 28: write(index): ") == std::string::npos) {
      EXPECT_GT(writes, 10);
      EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{}) << report;
      return;
    }
    expect_second_run_mends();
    restore();
  }
}

INSTANTIATE_TEST_SUITE_P(Pairs, Interrupted, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "varying" : "fixed"; });

}  // namespace
}  // namespace testing_support
