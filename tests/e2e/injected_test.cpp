// Public calls while the system fails them: reads, writes, locks and opens that are refused,
// interrupted or cut short, one after the other. A call tells when it could not do its work, what
// was done stays, and what is left can be repaired.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <set>
#include <string_view>
#include <utility>

#include "tests/e2e/sessions.h"
#include "tests/support/between.h"

namespace testing_support {
namespace {

// ---- What fails.

enum class Target { kRead, kWrite, kGrowth, kLock, kOpen };  // kGrowth: writes past the end

struct Plan {
  const char* name;
  Target target;
  int error;              // 0: every call is interrupted once, and transfers a part only
  bool lasts = false;     // from the call at which it comes
  bool survived = false;  // the library has another way
};

constexpr Plan kPlans[] = {
    {"ReadFails", Target::kRead, EIO},
    {"WriteFails", Target::kWrite, EIO},
    {"WritesFailFromThere", Target::kWrite, ENOSPC, true},
    {"DiskIsFull", Target::kGrowth, ENOSPC, true},
    {"NoLock", Target::kLock, ENOLCK},
    {"OpenFails", Target::kOpen, EACCES},
    {"NoDescriptor", Target::kOpen, EMFILE, false, true},
    {"ReadsInPieces", Target::kRead, 0, true, true},
    {"WritesInPieces", Target::kWrite, 0, true, true},
    {"LocksInterrupted", Target::kLock, 0, true, true},
    {"OpensInterrupted", Target::kOpen, 0, true, true},
};

struct Injection {
  Plan plan = {};
  int left = INT_MAX;  // calls until it comes
  int hits = 0;
  bool interrupted = false;
};
Injection injection;

// errno of the call when it fails.
int hit_at(Target target) {
  Injection& it = injection;
  if (it.plan.target != target || (it.left > 0 && it.left-- > 0)) return 0;
  if (it.hits > 0 && !it.plan.lasts) return 0;
  int error = it.plan.error;
  if (error == 0 && (it.interrupted = !it.interrupted)) error = EINTR;
  if (error != 0) ++it.hits;
  return error;
}

int inject(SystemCall& call) {
  const Injection& it = injection;
  int error = 0;
  Target target = Target::kRead;
  if (call.kind == SystemCall::kRead) {
    error = hit_at(target);
  } else if (call.kind == SystemCall::kWrite) {
    target = Target::kWrite;
    error = hit_at(target);
    if (error == 0 && call.grows()) error = hit_at(Target::kGrowth);
  } else if (call.kind == SystemCall::kLock) {
    // Giving a lock back does not fail; only the wait for the semaphore goes on after a signal.
    const bool may_fail =
        call.lock->l_type != F_UNLCK && (it.plan.error != 0 || call.flags == F_SETLKW);
    return may_fail ? hit_at(Target::kLock) : 0;
  } else {
    // Settings files may be missing or not; it is the pair that counts.
    const bool of_pair = call.path.ends_with(".idx") || call.path.ends_with(".dat");
    return call.kind == SystemCall::kOpen && of_pair ? hit_at(Target::kOpen) : 0;
  }
  // What of a transfer may be done at once.
  if (it.plan.target == target && it.plan.error == 0) call.count = (call.count + 2) / 3;
  return error;
}

// Whether an exclusive open has left its mark in the index file.
bool is_marked(const std::string& base) {
  const Image index = read_file(base + ".idx");
  return index.size() > 124 &&
         std::string_view(reinterpret_cast<const char*>(&index[117]), 4) == "EXCL";
}

// ---- What is done meanwhile.

struct Scene {
  const char* name;
  bool varying;
  bool exclusive;
  const char* buffers;
};

constexpr Scene kScenes[] = {{"Fixed", false, false, "16"},
                             {"Varying", true, false, "32"},
                             {"VaryingSmallPool", true, false, "4"},
                             {"FixedExclusive", false, true, "8"},
                             {"VaryingExclusive", true, true, "16"}};

constexpr int kIds = 30;

// States that a record may be in, as bits.
using States = unsigned;
constexpr States kAbsent = 1;
constexpr States with_counter(int counter) { return 2U << counter; }

struct Report {
  std::array<States, kIds + 1> possible;  // if every call did what it told
  std::array<States, kIds + 1> ever;      // since the last good close
  int calls = 0;                          // to the target
  int failures = 0;
  bool torn = false;  // a part of a call's changes may be in the files
  bool late = false;  // an exclusive open could not write what it had kept back
  int wrong = 0;      // line of the first call that ended as it must not, and how
  int reason = 0;
};

class Script {
 public:
  Script(const std::string& base, const Scene& scene, Report& report)
      : session_{base, scene.varying},
        scene_(scene),
        report_(report),
        lock_(scene.exclusive ? ISEXCLLOCK : ISMANULOCK) {
    report_.possible.fill(kAbsent);
    report_.ever.fill(kAbsent);
  }

  void run() {
    if (build()) {
      for (int i = 0; i < 24; ++i) insert(1 + i * 7 % 24);
      close();
    }
    if (open(lock_)) {
      for (int id = 1; id <= 9; ++id) rewrite(id);
      for (int id = 3; id <= 20; id += 4) erase(id);
      for (int id = 25; id <= 27; ++id) insert(id);
      for (int id = 1; id <= 12; id += 5) rewrite_current(id);
      close();
    }
    if (open(ISEXCLLOCK)) {
      add_index();
      close();
    }
    if (open(lock_)) {
      for (int id = 1; id <= kIds; ++id) read(id);
      for (int id = 12; id <= 18; ++id) rewrite(id);
      look_along();
      insert(28);
      erase_current(8);
      insert(3);
      close();
    }
  }

 private:
  // Whether a write that fails may leave a part of what was to be written: what was cannot be taken
  // back either. (A full disk is noticed first.)
  [[nodiscard]] bool tears() const {
    return !injection.plan.survived && injection.plan.target == Target::kWrite &&
           injection.plan.lasts;
  }
  // What an exclusive open's call has changed in storage when a read fails is not taken back.
  [[nodiscard]] bool stays_undone() const {
    return injection.plan.target == Target::kRead && !injection.plan.survived && alone_ &&
           scene_.varying;
  }
  // Whether a record may be found put together from two.
  [[nodiscard]] bool may_be_mixed(int id) {
    return scene_.varying && report_.torn && id > 0 && id <= kIds && (possible(id) & kAbsent) != 0;
  }

  void wrong(int line) {
    if (report_.wrong != 0) return;
    report_.wrong = line;
    report_.reason = ::iserrno;
  }

  // Does a call, which may fail for one of `reasons`, or because of the fault; what an exclusive
  // open keeps back may fail later, and is then told by a later call.
  template <typename Call>
  bool attempt(int line, const std::set<int>& reasons, Call call) {
    const int hits = injection.hits;
    const int result = call();
    const bool good = result >= 0;
    const bool mixed = result == kGarbled && may_be_mixed(session_.row.id);
    const bool keeps_back = alone_ && injection.plan.target == Target::kWrite;
    const bool comes = injection.hits != hits && !injection.plan.survived;
    const bool hit = comes || (report_.late && !good);
    report_.torn = report_.torn || (comes && (tears() || (!good && stays_undone())));
    report_.late = report_.late || (comes && keeps_back);
    // A read that only looked ahead may fail unnoticed.
    const bool must_fail = hit && injection.plan.target != Target::kRead && !keeps_back;
    if ((good != (::iserrno == 0) && !mixed) || (good && must_fail)) wrong(line);
    if (good) return true;
    ++report_.failures;
    if (mixed) return false;
    const bool told = injection.plan.target == Target::kLock || ::iserrno == injection.plan.error;
    const bool expected = report_.torn || reasons.contains(::iserrno);
    if (!(hit && told) && !(expected && (!comes || keeps_back))) wrong(line);
    return false;
  }

  // Once more after a failure: the fault may be over.
  template <typename Call>
  bool attempt_twice(int line, Call call) {
    if (attempt(line, {}, call)) return true;
    if (injection.plan.lasts) return false;
    return attempt(line, {}, call);
  }

  bool build() {
    alone_ = lock_ == ISEXCLLOCK;
    return attempt_twice(__LINE__, [&] {
      const int result = session_.build_empty(ISINOUT | lock_);
      for (const char* suffix : {".idx", ".dat"}) {
        if (result < 0 && std::filesystem::exists(session_.base + suffix)) wrong(__LINE__);
      }
      return result;
    });
  }
  bool open(int lock) {
    if (!std::filesystem::exists(session_.base + ".idx")) return false;
    if (is_marked(session_.base)) {
      if (session_.open(ISINOUT | lock) >= 0 || ::iserrno != ISECORRUPT) wrong(__LINE__);
      return false;
    }
    alone_ = lock == ISEXCLLOCK;
    return attempt_twice(__LINE__, [&] { return session_.open(ISINOUT | lock); });
  }
  void close() {
    const bool good = attempt(__LINE__, {}, [&] { return ::isclose(session_.isfd); });
    // A mark tells of what was not written, unless it could not be written either.
    const bool told = is_marked(session_.base) || injection.plan.lasts;
    if (alone_ && (good ? is_marked(session_.base) : !told)) wrong(__LINE__);
    if (good) report_.late = false;
    if (good && injection.hits == 0) report_.ever = report_.possible;
    if (!good && report_.torn) report_.possible = report_.ever;
  }
  void add_index() {
    attempt_twice(__LINE__, [&] {
      keydescr key = group_key();
      return ::isaddindex(session_.isfd, &key);
    });
  }

  // Reasons that what is there may give a call to fail.
  std::set<int> if_present(int id, int reason) {
    return (possible(id) & ~kAbsent) != 0 ? std::set<int>{reason} : std::set<int>{};
  }
  std::set<int> if_absent(int id, int reason) {
    return (possible(id) & kAbsent) != 0 ? std::set<int>{reason} : std::set<int>{};
  }
  States& possible(int id) { return report_.possible[static_cast<std::size_t>(id)]; }

  // A call that brings a record into a state.
  template <typename Call>
  void change(int line, int id, States aimed, const std::set<int>& reasons, Call call) {
    const States torn = scene_.varying ? aimed | kAbsent : aimed;
    const bool good = attempt(line, reasons, call);
    report_.ever[static_cast<std::size_t>(id)] |= torn;
    if (good) {
      possible(id) = aimed;
    } else if (report_.torn) {
      possible(id) |= torn;
    }
  }

  void insert(int id) {
    change(__LINE__, id, with_counter(0), if_present(id, ISEDUPLICATE), [&] {
      return session_.put({id, id % 4, 0}, ::iswrite);
    });
  }
  // The record with the next counter.
  Row next(int id) {
    int counter = 0;
    while (with_counter(counter) <= possible(id)) ++counter;
    return {id, (id + counter) % 4, counter};
  }
  void rewrite(int id) {
    const Row row = next(id);
    change(__LINE__, id, with_counter(row.counter), if_absent(id, ISENORECORD),
           [&] { return session_.put(row, ::isrewrite); });
  }
  void rewrite_current(int id) {
    if (!read(id, RD_LOCK)) return;
    const Row row = next(id);
    change(__LINE__, id, with_counter(row.counter), {},
           [&] { return session_.put(row, ::isrewcurr); });
  }
  void erase(int id) {
    change(__LINE__, id, kAbsent, if_absent(id, ISENORECORD),
           [&] { return session_.put({.id = id}, ::isdelete); });
  }
  void erase_current(int id) {
    if (!read(id)) return;
    change(__LINE__, id, kAbsent, {}, [&] { return ::isdelcurr(session_.isfd); });
  }

  bool read(int id, int lock = 0) {
    const bool good = attempt(__LINE__, if_absent(id, ISENORECORD),
                              [&] { return session_.read(RD_EQUAL | lock, id); });
    if (good) expect_known(id);
    return good;
  }
  void look_along() {
    if (!attempt(__LINE__, {ISEKEY}, [&] { return session_.start(group_key(), RD_FIRST); })) return;
    while (attempt(__LINE__, {ISEEND}, [&] { return session_.read(RD_NEXT); })) {
      expect_known(session_.row.id);
    }
    attempt_twice(__LINE__, [&] { return session_.start(id_key(), RD_FIRST); });
  }
  void expect_known(int id) {
    const bool same = session_.row.id == id && id <= kIds;
    if (!same || (possible(id) & with_counter(session_.row.counter)) == 0) wrong(__LINE__);
  }

  Session session_;
  const Scene& scene_;
  Report& report_;
  int lock_;
  bool alone_ = false;  // exclusively open
};

// Where a variable part was being written, its record may not fit the storage: that stays.
constexpr char kTorn[] =
    "ERROR(: bad data record\n|: Corrupt variable length record storage page| 105: )";

class Injected : public testing::TestWithParam<std::tuple<Scene, Plan>> {
 protected:
  // Runs the script in a process of its own, with the fault after `calls` calls.
  Report run(int calls, const std::string& base) const {
    const Common<Report> report;
    EXPECT_EQ(end_of(start_process([&] {
                ::setenv("ISAMBUFS", scene_.buffers, 1);
                injection = {.plan = plan_, .left = calls};
                stand_between(inject);
                Script(base, scene_, *report).run();
                report->calls = calls - injection.left;
              })),
              0);
    EXPECT_EQ(report->wrong, 0) << "ended with " << report->reason;
    return *report;
  }

  void expect_records(const std::array<States, kIds + 1>& possible, const std::string& base) const {
    const std::map<int, int> counters = counters_in(base, scene_.varying, 1, kIds);
    for (int id = 1; id <= kIds; ++id) {
      const auto at = counters.find(id);
      const States found = at == counters.end() ? kAbsent : with_counter(at->second);
      const States expected = possible[static_cast<std::size_t>(id)];
      EXPECT_NE(found & expected, 0U)
          << "record " << id << ": " << found << " instead of " << expected;
    }
  }

  TempFolder folder_;
  const Scene scene_ = std::get<0>(GetParam());
  const Plan plan_ = std::get<1>(GetParam());
};

TEST_P(Injected, FailuresAreToldAndLeaveWhatWasDone) {
  const int calls = run(INT_MAX, folder_ / "whole").calls;
  const int step = plan_.error == 0 ? calls : 1 + calls / 50;
  for (int at = 0; at < calls && !HasFailure(); at += step) {
    SCOPED_TRACE(at);
    const std::string base = folder_ / std::to_string(at);
    const Report report = run(at, base);
    if (!std::filesystem::exists(base + ".idx")) continue;
    if (report.torn || is_marked(base)) {
      EXPECT_GT(report.failures, 0);
      expect_repaired(base, scene_.varying ? kTorn : "");
    } else {
      EXPECT_EQ(walk_pair(base).problems, std::vector<std::string>{});
    }
    expect_records(report.possible, base);
  }
}

INSTANTIATE_TEST_SUITE_P(Scenes, Injected,
                         testing::Combine(testing::ValuesIn(kScenes), testing::ValuesIn(kPlans)),
                         [](const auto& test) {
                           return std::string(std::get<0>(test.param).name) +
                                  std::get<1>(test.param).name;
                         });

}  // namespace
}  // namespace testing_support
