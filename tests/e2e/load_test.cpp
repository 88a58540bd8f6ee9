// Bulk loads: beside single writes, with writes refused to them, killed, and in every state that
// calls can be in.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <new>
#include <random>
#include <vector>

#include "isam/calls/bulkload.h"
#include "tests/e2e/sessions.h"
#include "tests/support/between.h"

namespace testing_support {
namespace {

keydescr counter_key() { return {0, 1, {{kCounterAt, 4, KT_LONG}}, 0, 0}; }

std::vector<Row> rows(int count, int ids, unsigned seed) {
  std::mt19937 random(seed);
  const auto below = [&](int limit) {
    return static_cast<int>(random() % static_cast<unsigned>(limit));
  };
  std::vector<Row> made(static_cast<std::size_t>(count));
  for (Row& row : made) row = {below(ids), below(9), below(ids)};
  return made;
}

class Loads : public testing::TestWithParam<bool> {
 protected:
  static int alone(const std::function<void()>& work) {
    return end_of(start_process([&] {
      work();
      ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }));
  }

  [[nodiscard]] Session session(const std::string& name) const {
    return {folder_ / name, GetParam()};
  }

  // An open of a new pair with three indexes, and some records, of which a few were deleted.
  Session made(const std::string& name, int records) const {
    Session made = session(name);
    EXPECT_EQ(made.build(ISINOUT | ISEXCLLOCK), 0);
    keydescr key = counter_key();
    EXPECT_EQ(::isaddindex(made.isfd, &key), 0);
    for (const Row& row : rows(records, 4 * records, 1)) made.put(row, ::iswrite);
    for (int id = 1; id < 4 * records; id += 7) made.put({id}, ::isdelete);
    EXPECT_EQ(::isflush(made.isfd), 0);
    return made;
  }

  // Loads in some calls: what isloadend() gives, or the first failure.
  static int load(const Session& to, const std::vector<Row>& all,
                  std::vector<std::int32_t>* refused,
                  std::vector<std::int32_t>* numbers = nullptr) {
    if (::isloadbegin(to.isfd) != 0) return -1;
    for (std::size_t at = 0; at < all.size(); at += 700) {
      const auto begin = all.begin() + static_cast<std::ptrdiff_t>(at);
      const std::size_t count = std::min<std::size_t>(700, all.size() - at);
      RowSet set({begin, begin + static_cast<std::ptrdiff_t>(count)}, to.varying);
      const int taken = ::isload(to.isfd, &set.set);
      if (taken < 0) return -1;
      EXPECT_EQ(taken, static_cast<int>(count));
      if (numbers != nullptr)
        numbers->insert(numbers->end(), set.numbers.begin(), set.numbers.end());
    }
    if (refused == nullptr) return ::isloadend(to.isfd, nullptr, 0);
    refused->resize(all.size());
    const int count = ::isloadend(to.isfd, refused->data(), static_cast<std::int32_t>(all.size()));
    refused->resize(static_cast<std::size_t>(std::max(count, 0)));
    return count;
  }

  // The records in the order of each index.
  static std::vector<Row> seen(Session& from) {
    std::vector<Row> all;
    for (const keydescr& key : {id_key(), group_key(), counter_key()}) {
      EXPECT_EQ(from.start(key, RD_FIRST), 0);
      while (from.read(RD_NEXT) == 0) all.push_back(from.row);
      EXPECT_EQ(::iserrno, ISEEND);
    }
    return all;
  }

  // How many calls of a kind some work makes, and the numbers of the first of them, of the last,
  // and of some between.
  static int calls_of(SystemCall::Kind kind, const std::function<void()>& work) {
    int calls = 0;
    stand_between([&](const SystemCall& call) {
      calls += call.kind == kind ? 1 : 0;
      return 0;
    });
    work();
    stand_aside();
    return calls;
  }
  static std::vector<int> moments(int calls) {
    std::vector<int> numbers;
    for (int n = 0; n < calls; ++n) {
      if (n < 3 || n % (calls / 8 + 1) == 0 || calls - n <= 10) numbers.push_back(n);
    }
    return numbers;
  }

  [[nodiscard]] std::string both(const std::string& name) const {
    std::string all;
    for (const char* const suffix : {".idx", ".dat"}) {
      const auto bytes = read_file(folder_ / name + suffix);
      all.append(bytes.begin(), bytes.end());
    }
    return all;
  }

  void expect_sound(const std::string& name) const {
    expect_nothing_found(kestro("-nq", folder_ / name));
    EXPECT_EQ(walk_pair(folder_ / name).problems, std::vector<std::string>{});
  }

  const TempFolder folder_;
};

bool same(const std::vector<Row>& a, const std::vector<Row>& b) {
  return std::ranges::equal(a, b, [](const Row& x, const Row& y) {
    return x.id == y.id && x.group == y.group && x.counter == y.counter;
  });
}

TEST_P(Loads, LeaveThePairThatSingleWritesLeaveAndTellWhatIsRefused) {
  struct Case {
    int there, loaded, ids;
  };
  const bool varying = GetParam();
  for (const Case& of : {Case{0, 3000, 1 << 20},
                         {0, 3000, 2000},
                         {500, 2000, 6000},
                         {700, 9, 2800},
                         {3, 1, 2},
                         {300, 15000, 1 << 16}}) {
    if (varying && of.loaded > 9999) continue;
    SCOPED_TRACE(std::to_string(of.there) + " " + std::to_string(of.loaded));
    const std::vector<Row> all = rows(of.loaded, of.ids, 5);
    EXPECT_EQ(alone([&] {
                ::setenv("ISAMSORTMEM", "1", 1);
                Session single = made("single", of.there), bulk = made("bulk", of.there);
                std::vector<std::size_t> not_written;
                for (std::size_t n = 0; n < all.size(); ++n) {
                  if (single.put(all[n], ::iswrite) != 0) not_written.push_back(n);
                }
                std::vector<std::int32_t> refused, numbers;
                EXPECT_EQ(load(bulk, all, &refused, &numbers),
                          static_cast<int>(not_written.size()));
                std::vector<std::int32_t> wanted(not_written.size());
                std::ranges::transform(not_written, wanted.begin(),
                                       [&](std::size_t n) { return numbers[n]; });
                EXPECT_EQ(refused, wanted);
                EXPECT_TRUE(same(seen(single), seen(bulk)));
                EXPECT_EQ(walk_pair(folder_ / "bulk").problems, std::vector<std::string>{});
                // The files go on as before.
                std::vector<int> again;
                for (Session* each : {&single, &bulk}) {
                  for (const Row& row : rows(300, 1 << 21, 8)) each->put(row, ::iswrite);
                  for (std::size_t n = 0; n < all.size(); n += 3) each->put(all[n], ::isdelete);
                  again.push_back(load(*each, rows(200, 1 << 22, 9), nullptr));
                }
                EXPECT_EQ(again[0], again[1]);
                EXPECT_TRUE(same(seen(single), seen(bulk)));
                EXPECT_EQ(::iscleanup(), 0);
              }),
              0);
    expect_sound("bulk");
    expect_sound("single");
    for (const char* const name : {"single.idx", "single.dat", "bulk.idx", "bulk.dat"}) {
      std::filesystem::remove(folder_ / name);
    }
  }
}

// Numbers that a load leaves out are free: later writes take them.
TEST_P(Loads, LeaveOutNumbersThatBecomeFreeOnes) {
  constexpr int kEach = 400, kGap = 30;
  for (const bool with_refused : {false, true}) {
    EXPECT_EQ(alone([&] {
                Session pair = made("gaps", 100);
                EXPECT_EQ(isam::skip_numbers(pair.isfd, 1), -1);
                ASSERT_EQ(::isloadbegin(pair.isfd), 0);
                std::vector<std::int32_t> numbers;
                for (int part = 0; part < 3; ++part) {
                  std::vector<Row> all;
                  for (int n = 0; n < kEach; ++n) {
                    const int id = 10000 + part * kEach + n;
                    all.push_back({id, n % 9, id});
                  }
                  if (with_refused) all[7] = all.back() = all[3];
                  RowSet set(all, pair.varying);
                  EXPECT_EQ(isam::skip_numbers(pair.isfd, kGap), 0);
                  ASSERT_EQ(::isload(pair.isfd, &set.set), kEach);
                  numbers.insert(numbers.end(), set.numbers.begin(), set.numbers.end());
                }
                EXPECT_EQ(numbers.back(), numbers.front() + 3 * kEach + 2 * kGap - 1);
                std::vector<std::int32_t> refused(10);
                EXPECT_EQ(::isloadend(pair.isfd, refused.data(), 10), with_refused ? 6 : 0);
                EXPECT_EQ(with_refused ? refused[0] : numbers[7], numbers[7]);
                EXPECT_EQ(::isflush(pair.isfd), 0);
                EXPECT_EQ(walk_pair(folder_ / "gaps").problems, std::vector<std::string>{});
                // Those between the records are taken before the file grows.
                for (int n = 0; n < 3 * kGap; ++n) {
                  EXPECT_EQ(pair.put({(1 << 22) + n, 1, (1 << 22) + n}, ::iswrite), 0);
                  EXPECT_LT(::isrecnum, numbers.back());
                }
                EXPECT_EQ(::iscleanup(), 0);
              }),
              0);
    expect_sound("gaps");
    for (const char* const name : {"gaps.idx", "gaps.dat"}) std::filesystem::remove(folder_ / name);
  }
}

// Where a write or a read fails the files have the bytes that they had.
TEST_P(Loads, ThatFailLeaveEveryByteAsItWas) {
  for (const auto& [there, kind] :
       {std::pair{0, SystemCall::kWrite}, {400, SystemCall::kWrite}, {400, SystemCall::kRead}}) {
    const std::string name = "pair" + std::to_string(there) + std::to_string(kind);
    const auto fails_everywhere = [&, there = there, kind = kind] {
      ::setenv("ISAMSORTMEM", "1", 1);
      std::vector<Row> all = rows(GetParam() ? 500 : 15000, 5000, 5);
      // Variable parts of refused records are freed when all else is done.
      for (int n = 0; GetParam() && n < 500; ++n)
        all[static_cast<std::size_t>(n)] = {n + 10000, 0, n + 10000};
      Session pair = made("counted" + name, there);
      const int calls = calls_of(kind, [&] { EXPECT_GE(load(pair, all, nullptr), 0); });
      pair = made(name, there);
      const std::string before = both(name);
      for (const int number : moments(calls)) {
        SCOPED_TRACE(std::to_string(number) + " of " + std::to_string(calls));
        int left = number;
        stand_between(
            [&](const SystemCall& call) { return call.kind == kind && left-- == 0 ? EIO : 0; });
        EXPECT_EQ(load(pair, all, nullptr), -1);
        EXPECT_EQ(::iserrno, EIO);
        stand_aside();
        ::isloaddrop(pair.isfd);
        EXPECT_EQ(::isflush(pair.isfd), 0);
        if (both(name) != before) return static_cast<void>(ADD_FAILURE() << "other bytes");
      }
      EXPECT_EQ(::iscleanup(), 0);
    };
    EXPECT_EQ(alone(fails_everywhere), 0) << name;
    expect_sound(name);
  }
}

// Before the last step nothing shows of a killed load. In it the pair has to be repaired, and keeps
// what it had.
TEST_P(Loads, ThatAreKilledLeaveWhatThereWas) {
  const std::vector<Row> all = rows(GetParam() ? 500 : 15000, 5000, 5);
  made("pair", 200);
  ::iscleanup();
  const auto index = read_file(folder_ / "pair.idx"), data = read_file(folder_ / "pair.dat");
  Session pair = session("pair");
  const auto opened = [&] { return pair.open(ISINOUT | ISEXCLLOCK) >= 0; };
  EXPECT_TRUE(opened());
  const std::vector<Row> before = seen(pair);
  const int calls = calls_of(SystemCall::kWrite, [&] { EXPECT_GT(load(pair, all, nullptr), 0); });
  ::iscleanup();
  int repaired = 0, kept = 0;
  for (const int number : moments(calls)) {
    SCOPED_TRACE(std::to_string(number) + " of " + std::to_string(calls));
    write_file(folder_ / "pair.idx", index);
    write_file(folder_ / "pair.dat", data);
    const int end = alone([&] {
      EXPECT_TRUE(opened());
      int left = number;
      stand_between([&](const SystemCall& call) {
        if (call.kind == SystemCall::kWrite && left-- == 0) ::_exit(9);
        return 0;
      });
      load(pair, all, nullptr);
    });
    ASSERT_EQ(WEXITSTATUS(end), 9);
    if (opened()) {
      ++kept;
      EXPECT_TRUE(same(seen(pair), before));
      // Some of them need a node.
      for (int id = 77777777; id < 77777837; ++id) EXPECT_EQ(pair.put({id, 0, id}, ::iswrite), 0);
      EXPECT_EQ(::iscleanup(), 0);
      if (GetParam()) {
        EXPECT_LT(read_file(folder_ / "pair.idx").size(), index.size() + 160 * 1024);
      }
      expect_sound("pair");
      continue;
    }
    ++repaired;
    EXPECT_EQ(::iserrno, ISECORRUPT);
    expect_repaired(folder_ / "pair", "");
    EXPECT_TRUE(opened());
    const std::vector<Row> now = seen(pair);
    ::iscleanup();
    for (const Row& row : before) {
      EXPECT_TRUE(std::ranges::any_of(now, [&](const Row& of) { return same({of}, {row}); }));
    }
  }
  EXPECT_GT(kept, 2);
  EXPECT_GT(repaired, 2);
}

// The load is done, and nothing is unwritten, when a process is killed behind isloadend(). Where
// the storage of refused records cannot be freed their load is done all the same.
TEST_P(Loads, AreDoneWhateverBecomesOfTheStorageOfRefusedRecords) {
  for (const bool fails : {false, true}) {
    const std::string name = fails ? "fails" : "pair";
    EXPECT_EQ(alone([&] {
                Session pair = made(name, 0);
                bool done = false;
                stand_between([&](const SystemCall& call) {
                  if (fails && done && call.kind == SystemCall::kRead) throw std::bad_alloc();
                  done = done || (call.kind == SystemCall::kWrite && call.at == 0 &&
                                  call.name().ends_with(".idx"));
                  return 0;
                });
                EXPECT_EQ(load(pair, {{1, 1, 1}, {2, 2, 2}, {1, 3, 3}, {4, 4, 4}}, nullptr), 1);
              }),
              0);
    Session pair = session(name);
    const bool owes = fails && GetParam();
    EXPECT_EQ(pair.open(ISINOUT | ISEXCLLOCK) < 0, owes);
    if (owes) {
      expect_repaired(folder_ / name, "");
      EXPECT_GE(pair.open(ISINOUT | ISEXCLLOCK), 0);
    }
    EXPECT_EQ(seen(pair).size(), 9U);
    ::iscleanup();
    expect_sound(name);
  }
}

// The mark goes when all is as it was, and stays where that cannot be had.
TEST_P(Loads, ThatCannotBeTakenBackLeaveTheMark) {
  for (const bool cut_fails : {false, true}) {
    const std::string name = cut_fails ? "fails" : "pair";
    EXPECT_EQ(alone([&] {
                Session pair = made(name, 100);
                bool failed = false;
                stand_between([&](const SystemCall& call) {
                  if (call.kind == SystemCall::kCut) return failed && cut_fails ? EIO : 0;
                  const bool last = call.kind == SystemCall::kWrite && call.at == 0 && !failed;
                  failed = failed || last;
                  return last ? EIO : 0;
                });
                EXPECT_EQ(load(pair, rows(100, 1 << 20, 5), nullptr), -1);
              }),
              0);
    EXPECT_EQ(session(name).open(ISINOUT | ISEXCLLOCK) < 0, cut_fails);
    ::iscleanup();
    cut_fails ? expect_repaired(folder_ / name, "") : expect_sound(name);
  }
}

// Of equal keys there are as many as duplicate numbers of two bytes. What another index refuses
// takes none of them.
TEST(LoadsOfManyEqual, RefuseWhatHasNoNumberLeft) {
  const TempFolder folder;
  Session pair{folder / "pair"};
  ::isdupsiz = 2;
  ASSERT_GE(pair.build(ISINOUT | ISEXCLLOCK), 0);
  ::isdupsiz = 4;
  for (const int id : {1, 2}) EXPECT_EQ(pair.put({id, 7}, ::iswrite), 0);
  std::vector<Row> all;
  for (int id = 1; id <= 65540; ++id) all.push_back({id, 7});
  RowSet set(all, false);
  EXPECT_EQ(::isloadbegin(pair.isfd), 0);
  EXPECT_EQ(::isload(pair.isfd, &set.set), 65540);
  std::vector<std::int32_t> refused(9);
  EXPECT_EQ(::isloadend(pair.isfd, refused.data(), 9), 6);
  refused.resize(6);
  EXPECT_EQ(refused, (std::vector<std::int32_t>{3, 4, 65539, 65540, 65541, 65542}));
  EXPECT_EQ(pair.put({99999, 7}, ::iswrite), -1);
  EXPECT_EQ(::iserrno, ISEDUPLICATE);
  EXPECT_EQ(pair.put({99999, 8}, ::iswrite), 0);
  ::iscleanup();
  EXPECT_EQ(walk_pair(folder / "pair").problems, std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(Lengths, Loads, testing::Bool(),
                         [](const auto& test) { return test.param ? "Varying" : "Fixed"; });

}  // namespace
}  // namespace testing_support
