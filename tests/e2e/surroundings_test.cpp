// What surrounds a run of the program: its descriptors, its rights to the files, its locale, other
// processes, the script that reads its report, the terminal of its operator.
#include <fcntl.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

#include "checker/progress.h"
#include "tests/e2e/check_here.h"
#include "tests/e2e/peer.h"
#include "tests/e2e/program.h"

namespace testing_support {
namespace {

class Surroundings : public ProgramTest {
 protected:
  // A command line of the shell, with the program as $KESTRO.
  RunResult shell(const std::string& command, std::vector<std::string> environment = {}) {
    environment.emplace_back("KESTRO=" KESTRO_PROGRAM);
    return run_program({.words = {"/bin/sh", "-c", command},
                        .folder = folder_.path(),
                        .environment = std::move(environment)});
  }
};

// The files would get the lowest descriptors: the report would go into one of them, and the answers
// would be read from the other.
TEST_F(Surroundings, MayLackDescriptors) {
  BuiltPair built = damaged_pair();
  PairEditor pair(built);
  for (int number = 1; number <= built.spec.records; ++number) {
    std::fill_n(pair.slot(number) + 12, 20, Byte{'\n'});
    for (int i = 13; i < 32; i += 2) pair.slot(number)[i] = 'y';
  }
  pair.save();
  for (const std::string closed : {"<&-", ">&-", "2>&-", "<&- >&-", ">&- 2>&-", "<&- >&- 2>&-"}) {
    SCOPED_TRACE(closed);
    EXPECT_EQ(shell("$KESTRO -nq pair " + closed).status, 0);
    EXPECT_EQ(shell("$KESTRO -q pair " + closed + (has(closed, "<&-") ? "" : " </dev/null")).status,
              0);
    EXPECT_EQ(read_file(folder_ / "pair.idx"), pair.index);
    EXPECT_EQ(read_file(folder_ / "pair.dat"), pair.data);
  }
}

// ---- Files that can only be read.

constexpr int kInUse = 113;

int open_unless_to_write(const char* path, int flags, mode_t permissions) {
  errno = EACCES;
  return (flags & O_ACCMODE) != O_RDONLY ? -1 : ::open(path, flags, permissions);
}

// Checks the pair of a session in this process.
int check(Session& session, int /*unused*/, int /*unused*/) {
  common::system_calls().open = open_unless_to_write;
  const std::string report = session.base + ".report";
  if (std::freopen(report.c_str(), "w", stdout) == nullptr) return -1;
  const bool whole = check_here(session.base, 'n').whole;
  std::fflush(stdout);
  return whole ? 0 : -1;
}
int pause_check(Session& session, int first, int second) {
  pause_before_read = true;
  return check(session, first, second);
}
int open_pair(Session& session, int mode, int /*unused*/) { return session.open(mode); }
int read_id(Session& session, int id, int /*unused*/) { return session.read(RD_EQUAL, id); }
int write_id(Session& session, int id, int /*unused*/) {
  return session.put({id, 1, 0}, ::iswrite);
}
int close_pair(Session& session, int /*unused*/, int /*unused*/) { return ::isclose(session.isfd); }

TEST_F(Surroundings, MayForbidToWrite) {
  const std::string base = folder_ / "pair";
  build_pair_of(base, false, 40);
  const RunResult usual = kestro({"-nq", base});
  Peer checker(base), other(base);
  const auto report = [&] {
    const Image bytes = read_file(base + ".report");
    return std::string(bytes.begin(), bytes.end());
  };
  EXPECT_EQ(checker(check), 0);
  EXPECT_TRUE(has(usual.out, report())) << report();

  // Whoever has the pair open keeps the check away.
  for (const int lock : {ISMANULOCK, ISEXCLLOCK}) {
    ASSERT_EQ(other(open_pair, ISINOUT | lock), 0);
    checker(check);
    EXPECT_EQ(report(), "\nZentra ERROR 113: File is in use\n");
    ASSERT_EQ(other(close_pair), 0);
  }

  // While it is checked, others read it, but do not change it.
  ASSERT_EQ(checker(pause_check), kPaused);
  EXPECT_EQ(other(open_pair, ISINOUT | ISEXCLLOCK), kInUse);
  ASSERT_EQ(other(open_pair, ISINOUT | ISMANULOCK), 0);
  EXPECT_EQ(other(read_id, 7), 0);
  EXPECT_EQ(other(write_id, 99), kWaits);
  EXPECT_EQ(checker.go_on(), 0);
  EXPECT_EQ(other.end(), 0);
  EXPECT_TRUE(has(usual.out, report())) << report();
}

// ---- What is said of a pair that is not as it seems.

// The script of the manual tells sound pairs from the others, checked or not.
TEST_F(Surroundings, TellSoundPairsByTheScriptOfTheManual) {
  std::ifstream manual(KESTRO_MANUAL);
  std::string script;
  bool inside = false;
  for (std::string line; std::getline(manual, line);) {
    if (line == ".nf" || line == ".fi") inside = line == ".nf";
    if (!inside || !line.starts_with(".B ")) continue;
    line = line.substr(3);
    if (line.starts_with('"')) line = line.substr(1, line.size() - 2);
    for (std::size_t at; (at = line.find("\"\"")) != line.npos;) line.erase(at, 1);
    for (std::size_t at; (at = line.find("\\-")) != line.npos;) line.erase(at, 1);
    script += line + '\n';
  }
  ASSERT_TRUE(has(script, "for pair in")) << script;

  const auto built = [&](const char* name, bool varying) {
    return build_pair(fault_spec(varying), folder_ / name);
  };
  built("good", false);
  built("good2", true);
  const auto damaged = [&](const char* name, bool varying, void (*damage)(PairEditor&)) {
    const BuiltPair faulty = built(name, varying);
    PairEditor pair(faulty);
    damage(pair);
    pair.save();
  };
  damaged("indexless", false, [](PairEditor& pair) { put2(pair.node(9), 2); });
  damaged("storage", true,
          [](PairEditor& pair) { put4(pair.dictionary() + dict::kStorageHeads, 99999); });
  damaged("magic", false, [](PairEditor& pair) { put2(pair.dictionary(), 0x1234); });
  damaged("describe", false, [](PairEditor& pair) { put2(pair.description(2), 6); });
  built("lone", false);
  std::filesystem::remove(folder_ / "lone.dat");
  PairSpec foreign = fault_spec(false);
  foreign.collation = "xx_yy";
  build_pair(foreign, folder_ / "foreign");
  const BuiltPair emptied = built("hollow", false);
  PairEditor hollow(emptied);
  std::fill_n(hollow.node(emptied.key_nodes.front()), 256, Byte{0});
  put2(hollow.dictionary() + dict::kKeys, 0);
  hollow.save();

  const std::string path = "PATH=$(dirname $KESTRO):$PATH\n";
  EXPECT_EQ(shell(path + script).out,
            "describe.idx was not checked\nforeign.idx was not checked\ngood.idx is sound\n"
            "good2.idx is sound\nhollow.idx has faults\nindexless.idx has faults\n"
            "lone.idx was not checked\nmagic.idx was not checked\nstorage.idx has faults\n");
  const std::string nowhere = shell("kestro() { return 127; }\n" + script).out;
  EXPECT_TRUE(has(nowhere, "good.idx was not checked\n") && !has(nowhere, "sound")) << nowhere;
}

// ---- The line on the operator's terminal.

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

TEST_F(Surroundings, SeeHowFarItIs) {
  const BuiltPair built = build_pair(fault_spec(false), folder_ / "pair");
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
  for (const char* pass :
       {"Checking data records", "Checking an index", "Gathering keys", "Loading an index"}) {
    EXPECT_TRUE(has(shown, std::string("\r") + pass + ": ")) << shown;
  }
  EXPECT_TRUE(has(shown, "\rpair 3 of 200: Going: 0%\033[K")) << shown;
  EXPECT_TRUE(has(shown, "\rpair 3 of 200: Going: 25%, about 1 s left\033[K")) << shown;
  EXPECT_TRUE(has(shown, "\rAlone: 50%, about 0 s left\033[K")) << shown;
  EXPECT_TRUE(has(shown, "\r\033[K")) << shown;  // erased
}

}  // namespace
}  // namespace testing_support
