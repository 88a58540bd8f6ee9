// Single calls: how they tell what went wrong, and what stays open.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>

#include "isam.h"
#include "tests/support/between.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

namespace fs = std::filesystem;

std::string record_of(int id) { return std::to_string(10'000'000 + id) + "and so on   "; }
std::string status() { return {isstat1, isstat2, isstat3, isstat4}; }

// Pairs whose index file this process has open, or those of a name.
int pairs_open(const std::string& name = {}) {
  int found = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const auto path = fs::read_symlink(entry.path(), gone);
    found += path.extension() == ".idx" && (name.empty() || path.stem() == name) ? 1 : 0;
  }
  return found;
}

class Calls : public testing::Test {
 protected:
  ~Calls() override {
    ::iscleanup();
    ::isvclose(0);
  }
  [[nodiscard]] int open(const char* name, int lock = ISMANULOCK) const {
    return ::isopen((folder_ / name).c_str(), ISINOUT + lock);
  }
  // The open of a new pair with one record.
  [[nodiscard]] int build(const char* name, int lock = ISMANULOCK) const {
    keydescr key{0, 1, {{0, 8, KT_CHAR}}, 0, 0};
    const int isfd = ::isbuild((folder_ / name).c_str(), 20, &key, ISINOUT + ISEXCLLOCK);
    EXPECT_EQ(::iswrite(isfd, record_of(1).data()), 0);
    ::isclose(isfd);
    return open(name, lock);
  }

  TempFolder folder_;
};

// From 100 on an errno would read as a code of the library: 110 as the end of the file.
TEST_F(Calls, SystemCodesAreNotTheLibrarys) {
  struct Way {
    SystemCall::Kind refused;
    int place;
    int (*call)(int isfd, const char* other);
  };
  const Way ways[] = {
      {SystemCall::kWrite, 0x51,
       [](int isfd, const char*) { return ::iswrite(isfd, record_of(2).data()); }},
      {SystemCall::kLock, 0x61, [](int isfd, const char*) { return ::isflush(isfd); }},
      {SystemCall::kRead, 0x41,
       [](int, const char* other) { return ::isopen(other, ISINPUT + ISMANULOCK); }},
      {SystemCall::kStat, 0,
       [](int, const char* other) { return ::isopen(other, ISINPUT + ISMANULOCK); }},
  };
  ::isclose(build("other"));
  const int isfd = build("pair");
  for (const Way& way : ways) {
    for (const auto& [given, told] : {std::pair{EIO, EIO},
                                      {ENOSPC, ENOSPC},
                                      {EDQUOT, ENOSPC},
                                      {ESTALE, EIO},
                                      {ETIMEDOUT, EIO},
                                      {99, 99}}) {
      SCOPED_TRACE(testing::Message() << way.refused << " " << given);
      refuse(way.refused, given);
      EXPECT_EQ(way.call(isfd, (folder_ / "other").c_str()), -1);
      EXPECT_EQ(iserrno, told);
      EXPECT_EQ(iserrio, way.place);
    }
    stand_aside();
  }
}

// ... and the manual page has them all.
TEST_F(Calls, EveryCodeHasItsText) {
  std::map<int, std::string> texts;
  std::ifstream page{fs::path{KESTRO_MANUAL}.replace_filename("iserrno.3")};
  for (std::string line; std::getline(page, line);) {
    const std::size_t digits = line.find_first_not_of("0123456789");
    if (digits >= 3 && line.compare(digits, 2, "  ") == 0) {
      texts[std::stoi(line)] = line.substr(digits + 2);
    }
  }
  EXPECT_EQ(texts.size(), 73U);
  for (int code = 1; code < ISEDUPLICATE; ++code) texts[code] = std::strerror(code);
  for (int code = -1; code <= ISETOODEEP + 1; ++code) {
    const auto text = texts.find(code);
    EXPECT_EQ(::iserrtext(code), text == texts.end() ? "unknown error code" : text->second) << code;
  }
}

// Each goes on from its own place in an order of its own, whatever itself or the other deletes.
TEST_F(Calls, TwoOpensOfAPairTakeTurns) {
  constexpr int kRecords = 400;
  keydescr all_equal{KF_DUPS, 1, {{8, 4, KT_CHAR}}, 0, 0};
  std::string record = record_of(1);
  std::set<int> left{1};
  const int builder = build("pair", ISEXCLLOCK);
  EXPECT_EQ(::isaddindex(builder, &all_equal), 0);
  for (int id = 2; id <= kRecords; left.insert(id++)) ::iswrite(builder, record_of(id).data());
  ::isclose(builder);
  struct Reader {
    int isfd;
    int mode;
    int at;
  };
  std::array<Reader, 2> readers{{{open("pair"), RD_NEXT, 1}, {open("pair"), RD_PREV, kRecords}}};
  EXPECT_EQ(::isstart(readers[0].isfd, &all_equal, 0, record.data(), RD_FIRST), 0);
  EXPECT_EQ(::isread(readers[0].isfd, record.data(), RD_FIRST), 0);
  EXPECT_EQ(::isread(readers[1].isfd, record.data(), RD_LAST), 0);
  for (int turn = 0; left.size() > 1 && turn < 5 * kRecords && !HasFailure(); ++turn) {
    Reader& reader = readers[turn % 2];
    const bool forward = reader.mode == RD_NEXT;
    const auto met = forward ? left.upper_bound(reader.at) : left.lower_bound(reader.at);
    const bool ends = met == (forward ? left.end() : left.begin());
    EXPECT_EQ(::isread(reader.isfd, record.data(), reader.mode), ends ? -1 : 0);
    EXPECT_EQ(iserrno, ends ? ISEEND : 0);
    if (ends) {
      reader.mode = forward ? RD_PREV : RD_NEXT;
      continue;
    }
    reader.at = forward ? *met : *std::prev(met);
    EXPECT_EQ(record, record_of(reader.at)) << turn;
    if (turn % 3 == 0) continue;
    const Reader& other = readers[(turn + 1) % 2];
    EXPECT_EQ(turn % 3 == 1 ? ::isdelcurr(reader.isfd) : ::isdelrec(other.isfd, reader.at), 0);
    left.erase(reader.at);
  }
  EXPECT_EQ(left.size(), 1U);
}

TEST_F(Calls, ManyRecordsAreRefusedAsAWhole) {
  const int isfd = build("pair");
  for (int id = 2; id <= 5; ++id) ::iswrite(isfd, record_of(id).data());
  std::array<char, 60> records{};
  std::array<std::int32_t, 3> numbers{7, 7, 7};
  std::array<std::int32_t, 3> lengths{7, 7, 7};
  const recordset good{3, records.data(), records.size(), numbers.data(), lengths.data()};
  std::array<recordset, 8> bad;
  bad.fill(good);
  bad[0].count = 0;
  bad[1].count = INT32_MIN;
  bad[2].count = INT32_MAX;
  bad[3].count = 4;
  bad[4].size = 59;
  bad[5].records = nullptr;
  bad[6].numbers = nullptr;
  bad[7].lengths = nullptr;
  const auto refuses = [](int result) { return result == -1 && iserrno == ISEARGUMENT; };
  for (recordset& set : bad) {
    SCOPED_TRACE(&set - bad.data());
    EXPECT_TRUE(refuses(::isreadmany(isfd, &set, RD_NEXT)));
    EXPECT_TRUE(refuses(::isfetchmany(isfd, &set, RD_EQUAL)));
    EXPECT_TRUE(set.lengths == nullptr || refuses(::iswritemany(isfd, &set)));
  }
  recordset set = good;
  for (const int mode : std::initializer_list<int>{RD_FIRST, RD_CURR, RD_EQUAL,
                                                   RD_NEXT + RD_LOCK + RD_WAIT + RD_SKIPLOCK, -1}) {
    EXPECT_TRUE(refuses(::isreadmany(isfd, &set, mode))) << mode;
  }
  EXPECT_TRUE(refuses(::isfetchmany(isfd, &set, RD_NEXT)));
  EXPECT_TRUE(refuses(::isreadmany(isfd, nullptr, RD_NEXT)));
  EXPECT_EQ(::isreadmany(77, &set, RD_NEXT), -1);
  EXPECT_EQ(iserrno, ISENOTOPEN);
  EXPECT_EQ(numbers[0], 7);
  // Nothing has moved; what is read ends where it should.
  EXPECT_EQ(::isreadmany(isfd, &set, RD_NEXT), 3);
  EXPECT_EQ(::isreadmany(isfd, &set, RD_NEXT), 2);
  EXPECT_EQ(iserrno, ISEEND);
  EXPECT_EQ((std::string{records.data(), 40}), record_of(4) + record_of(5));
  set.lengths = nullptr;
  EXPECT_EQ(::iswritemany(isfd, &set), 0);
  EXPECT_EQ(iserrno, ISEDUPLICATE);
}

TEST_F(Calls, SoManyIdlePairsStayOpen) {
  EXPECT_EQ(::isvclose(10), 0);
  for (const char* name : {"a", "b", "c", "d", "e"}) ::isclose(build(name));
  const int busy = open("a");
  for (const auto& [most, left] : {std::pair{5, 5}, {4, 4}, {2, 2}, {0, 1}, {-1, 1}}) {
    EXPECT_EQ(::isvclose(most), 0);
    EXPECT_EQ(pairs_open(), left) << most;
  }
  // Those used last stay.
  EXPECT_EQ(::isvclose(10), 0);
  for (const char* name : {"b", "c", "d", "b"}) ::isclose(open(name));
  ::isvclose(2);
  EXPECT_EQ(pairs_open("b"), 1);
  EXPECT_EQ(::isclose(busy), 0);
}

// A pair that was kept at hand and has lost its data file is like any other such pair.
TEST_F(Calls, AnIdlePairWithoutItsDataIsNone) {
  const std::string base = folder_ / "pair";
  ::isvclose(9);
  for (const bool erases : {false, true}) {
    ASSERT_EQ(::isclose(build("pair")), 0);
    ASSERT_EQ(pairs_open(), 1);
    fs::remove(base + ".dat");
    EXPECT_EQ(erases ? ::iserase(base.c_str()) : open("pair", ISAUTOLOCK), -1);
    EXPECT_EQ(iserrno, ENOENT);
    EXPECT_EQ(iserrio, 0x12);
    EXPECT_EQ(status(), "9035");
    EXPECT_EQ(pairs_open(), 0);
    EXPECT_EQ(fs::remove(base + ".idx"), !erases);
  }
}

TEST_F(Calls, ACleanupClosesEverythingAndTellsTheFirstFailure) {
  const int opens[] = {build("a", ISEXCLLOCK), build("b"), build("c", ISEXCLLOCK)};
  ::isvclose(9);
  ::isclose(build("d"));
  for (const int isfd : {opens[0], opens[2]}) {
    EXPECT_EQ(::isrewrec(isfd, 1, record_of(7).data()), 0);
  }
  refuse(SystemCall::kWrite, ENOSPC);
  EXPECT_EQ(::iscleanup(), -1);
  stand_aside();
  EXPECT_EQ(iserrno, ENOSPC);
  EXPECT_EQ(status(), "9090");
  EXPECT_EQ(pairs_open(), 0);
  for (const int isfd : opens) EXPECT_EQ(::isflush(isfd), -1);
  // What was told before it stays when nothing fails.
  EXPECT_EQ(::isdelrec(build("e"), 9), -1);
  EXPECT_EQ(::iscleanup(), 0);
  EXPECT_EQ(iserrno, ISENORECORD);
  EXPECT_EQ(status(), "2323");
  EXPECT_EQ(pairs_open(), 0);
}

}  // namespace
}  // namespace testing_support
