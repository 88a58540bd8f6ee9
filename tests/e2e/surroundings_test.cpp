// The line on the operator's terminal. (What else surrounds a run: tests/scripts/surroundings.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "checker/progress.h"
#include "tests/e2e/check_here.h"
#include "tests/support/child_process.h"
#include "tests/support/damage.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

// Standard error of what `work` does in a process whose standard error is a terminal.
template <typename Work>
std::string on_terminal(Work work) {
  const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (terminal < 0 || ::grantpt(terminal) != 0 || ::unlockpt(terminal) != 0) return "no terminal";
  const int end = ::open(::ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
  const pid_t process = start_process([&] {
    if (::dup2(end, STDERR_FILENO) >= 0) work();
  });
  ::close(end);
  std::string shown;
  char piece[4096];
  for (ssize_t got; (got = ::read(terminal, piece, sizeof piece)) > 0;) {
    shown.append(piece, static_cast<std::size_t>(got));
  }
  ::close(terminal);
  EXPECT_EQ(end_of(process), 0);
  return shown;
}

TEST(Surroundings, SeeHowFarItIs) {
  const TempFolder folder;
  const BuiltPair built = build_pair(fault_spec(false), folder / "pair");
  const std::string shown = on_terminal([&] {
    checker::Progress::allow();
    constexpr std::int64_t kTotal = 10'000'000;
    const auto wait = [](int milliseconds) {
      std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    };
    { checker::Progress start("Starting", kTotal); }
    wait(1050);
    checker::Progress::begin_pair(3, 200);
    checker::Progress several("Going", kTotal);
    several.at(1);
    wait(250);
    several.at(kTotal / 4);
    checker::Progress::begin_pair(1, 1);
    checker::Progress alone("Alone", kTotal);
    alone.at(kTotal / 2);
    PairEditor pair(built);
    put2(pair.node(9), 2);
    pair.save();
    if (std::freopen("/dev/null", "w", stdout) != nullptr) check_here(built.base, 'y');
  });
  for (const char* line :
       {"\rChecking data records: ", "\rChecking an index: ", "\rGathering keys: ",
        "\rLoading an index: ", "\rpair 3 of 200: Going: 0%\033[K",
        "\rpair 3 of 200: Going: 25%, about 1 s left\033[K", "\rAlone: 50%, about 0 s left\033[K",
        "\r\033[K"}) {
    EXPECT_NE(shown.find(line), shown.npos) << line << " in " << shown;
  }
}

}  // namespace
}  // namespace testing_support
