// Repairs that are cut short: killed, interrupted by a signal or refused by the system at every
// call that changes something. The checker runs in a child process of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <random>
#include <tuple>

#include "common/io.h"
#include "tests/e2e/check_here.h"
#include "tests/e2e/sessions.h"
#include "tests/support/between.h"
#include "tests/support/damage.h"

namespace testing_support {
namespace {

// ---- What happens at a call.

enum class Then { kNothing, kIsKilled, kIsInterrupted, kFails, kFailsOn };

struct Happening {
  const char* name;
  Then then;
  int error = 0;
};
constexpr Happening kHappenings[] = {
    {"Killed", Then::kIsKilled},      {"Interrupted", Then::kIsInterrupted},
    {"NoRoom", Then::kFails, ENOSPC}, {"NoRoomFromThere", Then::kFailsOn, ENOSPC},
    {"DiskError", Then::kFails, EIO}, {"NoMemory", Then::kFails, ENOMEM}};

// How the copy is made.
enum class Way { kNameless, kNamed, kInPlace };
constexpr const char* kWays[] = {"Nameless", "Named", "InPlace"};

constexpr int kKilled = 77;
Happening happening;
Way way;
int left = INT_MAX;      // calls until it comes
bool repairing = false;  // reads count only then

// errno of the call when it fails.
int happens() {
  const bool hit = left == 0 || (left < 0 && happening.then == Then::kFailsOn);
  if (left >= 0) --left;
  if (!hit) return 0;
  if (happening.then == Then::kIsKilled) ::_exit(kKilled);
  if (happening.then == Then::kIsInterrupted) ::raise(SIGTERM);
  return happening.error;
}

int put_in_the_way(SystemCall& call) {
  switch (call.kind) {
    case SystemCall::kNameless:
    case SystemCall::kOpen:
      if (call.kind == SystemCall::kNameless || (call.flags & O_CREAT) != 0) {
        repairing = true;
        if (const int error = happens(); error != 0) return error;
      }
      return call.kind == SystemCall::kNameless && way == Way::kNamed ? EOPNOTSUPP : 0;
    case SystemCall::kRead: {
      // Room is needed only by what writes; reading before the repair only finds other faults.
      const bool counts = repairing && happening.then >= Then::kFails && happening.error != ENOSPC;
      return counts ? happens() : 0;
    }
    case SystemCall::kCopy:
      call.count = std::min<std::size_t>(call.count, 20000);  // so that one piece may be missing
      return happens();
    case SystemCall::kClone:
      return EOPNOTSUPP;
    case SystemCall::kLock:
    case SystemCall::kUnlink:
    case SystemCall::kStat:
      return 0;
    default:
      return happens();
  }
}

// ---- What it happens to.

using Case = std::tuple<bool, Way, Happening>;

class Interrupted : public testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    built_ = build_pair(fault_spec(std::get<0>(GetParam())), base_);
    PairEditor editor(built_);
    // Every kind of repair has something to do.
    put4(editor.dictionary() + dict::kFreeData, 99999);
    put4(editor.dictionary() + dict::kFreeNode, 99999);
    put2(editor.dictionary() + dict::kKeys, 7);
    for (const BuiltIndex& index : built_.indexes) put2(editor.node(index.leaves.back()), 2);
    if (std::get<0>(GetParam())) put4(editor.dictionary() + dict::kStorageHeads + 4, 99999);
    damaged_index_ = editor.index;
    damaged_data_ = editor.data;
    restore();
    records_ = walk_pair(base_).records;
    repair({}, INT_MAX);
    repaired_index_ = index();
    ASSERT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
  }

  // With a second name of the index no copy can take its place.
  void restore() const {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      std::filesystem::remove(entry.path());
    }
    write_file(base_ + ".idx", damaged_index_);
    write_file(base_ + ".dat", damaged_data_);
    if (way_ == Way::kInPlace) std::filesystem::create_hard_link(base_ + ".idx", base_ + ".2nd");
  }
  [[nodiscard]] Image index() const { return read_file(base_ + ".idx"); }

  // Runs `kestro -yq` in a child: the status that waitpid gives.
  int repair(const Happening& what, int calls) {
    std::fflush(stdout);
    return end_of(start_process([&] {
      const std::string report = outside_ / "report";
      if (std::freopen(report.c_str(), "w", stdout) == nullptr) ::_exit(1);
      ::dup2(STDOUT_FILENO, STDERR_FILENO);
      happening = what;
      way = way_;
      left = calls;
      stand_between(put_in_the_way);
      // The test waits for no disk.
      common::system_calls().fsync = [](int) {
        errno = happens();
        return errno == 0 ? 0 : -1;
      };
      check_here(base_, 'y');
      std::fflush(stdout);
      ::_exit(left < 0 ? 0 : 1);  // 1: there were not that many calls
    }));
  }

  // Files beside the pair and what is kept on purpose.
  [[nodiscard]] int strangers() const {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      const std::string name = entry.path().filename();
      const bool known = name == "pair.dat" || name == "pair.idx" || name == "pair.2nd" ||
                         name.starts_with("pair.idx.before");
      count += known ? 0 : 1;
    }
    return count;
  }
  [[nodiscard]] bool is_kept() const { return std::filesystem::exists(base_ + ".idx.before"); }
  // Whether it bears the mark of unfinished changes, with which it cannot be opened.
  [[nodiscard]] bool is_marked() const { return get4(index().data() + dict::kSize) != 0; }
  [[nodiscard]] std::string report() const {
    const Image bytes = read_file(outside_ / "report");
    return {bytes.begin(), bytes.end()};
  }

  void expect_all_or_nothing() {
    EXPECT_EQ(read_file(base_ + ".dat"), damaged_data_);
    const bool whole = index() == repaired_index_;
    if (what_.then == Then::kIsKilled) {
      EXPECT_LE(strangers(), way_ == Way::kNamed ? 2 : 1);
    } else {
      EXPECT_EQ(strangers(), 0);
    }
    if (whole || index() == damaged_index_) {
      EXPECT_TRUE(what_.then == Then::kIsKilled || is_kept() == whole || way_ == Way::kInPlace);
      if (what_.then != Then::kIsKilled) {
        EXPECT_NE(report().find("the pair is as it was") != std::string::npos, whole) << report();
      }
    } else {
      EXPECT_TRUE(is_marked());
      // Where no copy could be made, too, or none could take the index's place.
      EXPECT_TRUE(way_ == Way::kInPlace || what_.error == ENOSPC);
    }
  }

  void expect_next_run_mends() {
    EXPECT_EQ(repair({}, INT_MAX), 1 << 8);
    Walk after = walk_pair(base_);
    // A page that could not be filed in place stays unused.
    if (way_ == Way::kInPlace && what_.error != 0) {
      std::erase(after.problems, "storage page on no list");
    }
    EXPECT_EQ(after.problems, std::vector<std::string>{});
    EXPECT_TRUE(after.records == records_);
    EXPECT_EQ(strangers(), 0);
    EXPECT_FALSE(is_marked());
  }

  const Way way_ = std::get<1>(GetParam());
  const Happening what_ = std::get<2>(GetParam());
  TempFolder folder_;
  TempFolder outside_;
  const std::string base_ = folder_ / "pair";
  BuiltPair built_;
  Image damaged_index_;
  Image damaged_data_;
  Image repaired_index_;
  std::map<std::int32_t, Image> records_;
};

TEST_P(Interrupted, LeavesTheOldPairOrTheNewOne) {
  constexpr int kNotReached = 1 << 8;
  // KESTRO_EVERY_CALL leaves none out.
  const bool all = what_.error == 0 || std::getenv("KESTRO_EVERY_CALL") != nullptr;
  int calls = 0;
  for (;; calls += all || calls < 20 ? 1 : 4) {
    SCOPED_TRACE(calls);
    restore();
    const int status = repair(what_, calls);
    if (status == kNotReached) break;
    if (what_.error == 0) {
      ASSERT_EQ(status, what_.then == Then::kIsKilled ? kKilled << 8 : SIGTERM);
    }
    expect_all_or_nothing();
    if (HasFailure()) std::fputs(report().c_str(), stderr);
    expect_next_run_mends();
    ASSERT_FALSE(HasFailure()) << report();
  }
  EXPECT_GT(calls, 20);
}

INSTANTIATE_TEST_SUITE_P(
    Repairs, Interrupted,
    testing::Combine(testing::Bool(), testing::Values(Way::kNameless, Way::kNamed, Way::kInPlace),
                     testing::ValuesIn(kHappenings)),
    [](const auto& test) {
      return std::string(std::get<0>(test.param) ? "Varying" : "Fixed") +
             kWays[static_cast<int>(std::get<1>(test.param))] + std::get<2>(test.param).name;
    });

// ---- The program itself, at any moment. KESTRO_SIGNAL_RUNS makes more runs.

TEST(Signals, LeaveTheOldPairOrTheNewOne) {
  constexpr int kRecords = 6000;
  const TempFolder folder;
  const std::string base = folder / "pair";
  build_pair_of(base, false, kRecords);
  Image damaged = read_file(base + ".idx");
  for (std::size_t node = 2; node < damaged.size() / 1024; node += 3) damaged[node * 1024] = 0x7F;
  const auto repair_until = [&](int signal, int microseconds) {
    write_file(base + ".idx", damaged);
    const pid_t child = start_process([&] {
      for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(::open("/dev/null", O_WRONLY), fd);
      }
      ::execl(KESTRO_PROGRAM, "kestro", "-yq", base.c_str(), nullptr);
    });
    if (signal != 0) {
      ::usleep(static_cast<useconds_t>(microseconds));
      ::kill(child, signal);
    }
    return end_of(child);
  };
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(repair_until(0, 0), 0);
  const std::chrono::duration<double, std::micro> length = std::chrono::steady_clock::now() - start;
  const Image repaired = read_file(base + ".idx");
  ASSERT_NE(repaired, damaged);

  const char* wanted = std::getenv("KESTRO_SIGNAL_RUNS");
  const int runs = wanted == nullptr ? 24 : std::atoi(wanted);
  std::mt19937 random(1);
  int ended = 0;
  for (int run = 0; run < runs && !HasFailure(); ++run) {
    const int signal = std::array{SIGINT, SIGHUP, SIGTERM, SIGPIPE, SIGKILL}[run % 5UL];
    SCOPED_TRACE(std::to_string(run) + ": " + std::to_string(signal));
    const int status =
        repair_until(signal, static_cast<int>(random() % static_cast<unsigned>(length.count())));
    EXPECT_TRUE(status == 0 || WTERMSIG(status) == signal) << status;
    ended += status == 0 ? 0 : 1;
    const Image now = read_file(base + ".idx");
    EXPECT_TRUE(now == damaged || now == repaired);
    const auto files = std::distance(std::filesystem::directory_iterator(folder.path()), {});
    EXPECT_LE(files, signal == SIGKILL ? 3 : 2);
  }
  EXPECT_GT(ended, runs / 4);
}

}  // namespace
}  // namespace testing_support
