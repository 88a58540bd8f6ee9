// zentra check on pairs that other processes change meanwhile.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/logged_pairs.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

constexpr int kWriters = 4;
constexpr int kIds = 100;  // of each writer's own: what one has deleted no other may add meanwhile

int checks_wanted() {
  const char* const wanted = std::getenv("KESTRO_LIVE_CHECKS");
  return wanted == nullptr ? 20 : std::atoi(wanted);
}

// Adds, deletes and rewrites records in transactions, which end in all ways and stay open for a
// while.
[[noreturn]] void change_for_ever(const std::string& pair, bool varying, unsigned seed) {
  std::minstd_rand random(seed);
  const auto below = [&random](unsigned n) { return static_cast<int>(random() % n); };
  if (::islogopen("log") != 0) ::_exit(1);
  const int isfd = open_pair(pair, varying, ISMANULOCK + ISTRANS);
  if (isfd < 0) ::_exit(2);
  for (;;) {
    ::isbegin();
    for (int i = 0; i < 6; ++i) {
      std::string record =
          row(static_cast<int>(seed) * 1000 + below(kIds), below(9), varying ? below(2900) : 0);
      ::isreclen = static_cast<int>(record.size());
      switch (below(3)) {
        case 0:
          ::iswrite(isfd, record.data());
          break;
        case 1:
          ::isrewrite(isfd, record.data());
          break;
        default:
          ::isdelete(isfd, record.data());
      }
      ::usleep(500);
    }
    below(3) == 0 ? ::isrollback() : ::iscommit();
  }
}

class Live : public testing::TestWithParam<bool> {};

TEST_P(Live, ChecksGiveNoFalseAlarm) {
  const TempFolder folder;
  std::filesystem::current_path(folder.path());
  build_pair("pair", GetParam(), 20);
  std::ofstream("log").flush();
  std::vector<pid_t> writers;
  for (unsigned seed = 1; seed <= kWriters; ++seed) {
    writers.push_back(start_process([&] { change_for_ever("pair", GetParam(), seed); }));
  }
  int kept = 0;
  for (int i = 0; i < checks_wanted(); ++i) {
    const RunResult run = run_program({.words = {ZENTRA_PROGRAM, "check", "--json", "pair"}});
    EXPECT_EQ(run.status, 0) << run.out;
    kept += run.out.find("transaction.keeps") != run.out.npos ? 1 : 0;
    ::usleep(20'000);
  }
  for (const pid_t writer : writers) {
    ::kill(writer, SIGKILL);
    EXPECT_EQ(end_of(writer), SIGKILL);  // none had ended before
  }
  EXPECT_GT(kept, 0);
  std::filesystem::current_path("/");
}

// Zero bytes are the state of absent records, so that a wrong length misses no state.
TEST(Fit, FindsTheLengthOfRecordsOfZeros) {
  const TempFolder folder;
  std::filesystem::current_path(folder.path());
  keydescr key{};
  key.nparts = 1;
  key.part[0] = {0, 4, KT_LONG};
  std::string record(800, '\0');
  const int isfd = ::isbuild("wide", 800, &key, ISINOUT + ISEXCLLOCK);
  for (int i = 1; i <= 4000; ++i) {
    stlong(i, record.data());
    ASSERT_EQ(::iswrite(isfd, record.data()), 0);
  }
  ::isclose(isfd);
  std::fstream index("wide.idx", std::ios::in | std::ios::out | std::ios::binary);
  index.seekp(13).write("\x03\x21", 2).flush();
  const RunResult run = run_program({.words = {ZENTRA_PROGRAM, "check", "--json", "wide"}});
  EXPECT_EQ(run.status, 2) << run.out;
  EXPECT_NE(run.out.find("800 fits all"), run.out.npos) << run.out;
  // Nobody waits for the search, which looks at two million bytes.
  const auto seconds = [&](const std::string& field) {
    return std::stod(run.out.substr(run.out.find(field) + field.size()));
  };
  EXPECT_GT(seconds("\"seconds\":") - seconds("\"seconds-held\":"), 0.003) << run.out;
  std::filesystem::current_path("/");
}

INSTANTIATE_TEST_SUITE_P(Both, Live, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Varying" : "Fixed"; });

}  // namespace
}  // namespace testing_support
