// Single calls: which arguments they take, and how they tell what went wrong.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "common/io.h"
#include "isam.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

constexpr int kLength = 20;
keydescr primary() { return {0, 1, {{0, 8, KT_CHAR}}, 0, 0}; }
keydescr second() { return {KF_DUPS, 1, {{8, 4, KT_CHAR}}, 0, 0}; }
keydescr by_number() { return {}; }

std::string record_of(int id) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%08d%012d", id, id);
  return std::string{text.data()}.substr(0, kLength);
}

class Calls : public testing::Test {
 protected:
  ~Calls() override { ::iscleanup(); }

  // The open of a new pair with two indexes and records 1 to `records`.
  [[nodiscard]] int build(const char* name, int records, int lock = ISEXCLLOCK) const {
    keydescr key = primary();
    keydescr other = second();
    const std::string base = folder_ / name;
    int isfd = ::isbuild(base.c_str(), kLength, &key, ISINOUT + ISEXCLLOCK);
    EXPECT_EQ(::isaddindex(isfd, &other), 0);
    for (int id = 1; id <= records; ++id) {
      EXPECT_EQ(::iswrite(isfd, record_of(id).data()), 0);
    }
    ::isclose(isfd);
    return ::isopen(base.c_str(), ISINOUT + lock);
  }

  TempFolder folder_;
};

TEST_F(Calls, AStartTakesTheseLengths) {
  const int isfd = build("pair", 3);
  enum { kCurrent, kOther, kNumbers };
  struct Case {
    int key;
    int len;
    bool edge;    // refused by RD_FIRST and RD_LAST
    bool search;  // refused by the other modes
  };
  for (const auto& [which, len, edge, search] : {Case{kCurrent, -1, false, true},
                                                 {kCurrent, 9, false, true},
                                                 {kCurrent, 8, false, false},
                                                 {kOther, -1, true, true},
                                                 {kOther, 5, true, true},
                                                 {kOther, 4, false, false},
                                                 {kNumbers, -1, false, true},
                                                 {kNumbers, 99, false, false}}) {
    for (const int mode : {RD_FIRST, RD_LAST, RD_EQUAL, RD_GREAT, RD_GTEQ}) {
      keydescr before = primary();
      ASSERT_EQ(::isstart(isfd, &before, 0, nullptr, RD_FIRST), 0);
      keydescr key = which == kCurrent ? primary() : which == kOther ? second() : by_number();
      std::string record = record_of(1);
      isrecnum = 1;
      const bool refused = mode == RD_FIRST || mode == RD_LAST ? edge : search;
      EXPECT_EQ(::isstart(isfd, &key, len, record.data(), mode) < 0 && iserrno == ISEARGUMENT,
                refused)
          << which << " " << len << " " << mode << ": " << iserrno;
    }
  }
}

TEST_F(Calls, AStartByNumberEndsWhereThereIsNone) {
  struct Case {
    int records;
    int mode;
    int number;
    int error;
    int found;
  };
  int opens[] = {build("none", 0), build("one", 1)};
  for (const auto& [records, mode, number, error, found] : {Case{0, RD_GTEQ, 0, ISEEND, 0},
                                                            {0, RD_GTEQ, -7, ISEEND, 0},
                                                            {0, RD_GTEQ, 1, ISENORECORD, 0},
                                                            {0, RD_GREAT, -1, ISEEND, 0},
                                                            {0, RD_GREAT, 0, ISENORECORD, 0},
                                                            {0, RD_EQUAL, 0, ISENORECORD, 0},
                                                            {1, RD_GTEQ, INT_MIN, 0, 1},
                                                            {1, RD_GTEQ, 2, ISENORECORD, 0},
                                                            {1, RD_GREAT, 0, 0, 1},
                                                            {1, RD_GREAT, INT_MAX, ISENORECORD, 0},
                                                            {1, RD_EQUAL, -1, ISENORECORD, 0}}) {
    keydescr key = by_number();
    std::string record = record_of(1);
    isrecnum = number;
    EXPECT_EQ(::isstart(opens[records], &key, 0, record.data(), mode), error == 0 ? 0 : -1);
    EXPECT_EQ(iserrno, error) << records << " " << mode << " " << number;
    EXPECT_EQ(isrecnum, error == 0 ? found : number);
  }
}

int system_error = 0;
bool fails() { return (errno = system_error) != 0; }
ssize_t refuse_write(int fd, const void* from, std::size_t count, off_t at) {
  return fails() ? -1 : ::pwrite(fd, from, count, at);
}
ssize_t refuse_read(int fd, void* to, std::size_t count, off_t at) {
  return fails() ? -1 : ::pread(fd, to, count, at);
}
int refuse_lock(int fd, int command, struct flock* lock) {
  return lock->l_type != F_UNLCK && fails() ? -1 : ::fcntl(fd, command, lock);
}
int refuse_stat(const char* path, struct stat* status) {
  return fails() ? -1 : ::stat(path, status);
}

// From 100 on an errno would read as a code of the library: 110 as the end of the file.
TEST_F(Calls, SystemCodesAreNotTheLibrarys) {
  const std::string base = folder_ / "other";
  const int isfd = build("pair", 1, ISMANULOCK);
  common::SystemCalls& calls = common::system_calls();
  const common::SystemCalls real = calls;
  struct Way {
    const char* name;
    void (*refuse)(common::SystemCalls&);
    int place;
    int (*call)(int isfd, const char* base);
  };
  const Way ways[] = {
      {"write", [](auto& table) { table.pwrite = refuse_write; }, 0x51,
       [](int to, const char*) { return ::iswrite(to, record_of(2).data()); }},
      {"lock", [](auto& table) { table.fcntl_lock = refuse_lock; }, 0x61,
       [](int to, const char*) { return ::isflush(to); }},
      {"read", [](auto& table) { table.pread = refuse_read; }, 0x41,
       [](int, const char* name) { return ::isopen(name, ISINPUT + ISMANULOCK); }},
      {"stat", [](auto& table) { table.stat = refuse_stat; }, 0,
       [](int, const char* name) { return ::isopen(name, ISINPUT + ISMANULOCK); }},
  };
  ::isclose(build("other", 1, ISMANULOCK));
  for (const Way& way : ways) {
    for (const auto& [given, told] : {std::pair{EIO, EIO},
                                      {ENOSPC, ENOSPC},
                                      {EDQUOT, ENOSPC},
                                      {ESTALE, EIO},
                                      {ETIMEDOUT, EIO},
                                      {99, 99}}) {
      way.refuse(calls);
      system_error = given;
      const int result = way.call(isfd, base.c_str());
      system_error = 0;
      calls = real;
      EXPECT_EQ(result, -1) << way.name;
      EXPECT_EQ(iserrno, told) << way.name << " " << given;
      EXPECT_EQ(iserrio, way.place) << way.name << " " << given;
    }
  }
}

// ... and the manual page has them all.
TEST_F(Calls, EveryCodeHasItsText) {
  std::map<int, std::string> texts;
  std::ifstream page{std::filesystem::path{KESTRO_MANUAL}.replace_filename("iserrno.3")};
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

int pairs_open(const std::string& name = {}) {
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const auto path = std::filesystem::read_symlink(entry.path(), gone);
    found += path.extension() == ".idx" && (name.empty() || path.stem() == name) ? 1 : 0;
  }
  return found;
}

TEST_F(Calls, SoManyIdlePairsStayOpen) {
  const char* const names[] = {"a", "b", "c", "d", "e"};
  EXPECT_EQ(::isvclose(10), 0);
  for (const char* name : names) ::isclose(build(name, 1));
  const int busy = ::isopen((folder_ / "a").c_str(), ISINPUT + ISMANULOCK);
  for (const auto& [most, left] : {std::pair{5, 5}, {4, 4}, {2, 2}, {0, 1}, {-1, 1}}) {
    EXPECT_EQ(::isvclose(most), 0);
    EXPECT_EQ(pairs_open(), left) << most;
  }
  // Those used last stay.
  EXPECT_EQ(::isvclose(10), 0);
  for (const char* name : {"b", "c", "d", "b"}) {
    ::isclose(::isopen((folder_ / name).c_str(), ISINPUT + ISMANULOCK));
  }
  ::isvclose(2);
  EXPECT_EQ(pairs_open("b"), 1);
  EXPECT_EQ(::isclose(busy), 0);
  ::isvclose(0);
}

// A pair that was kept at hand and has lost its data file is like any other such pair.
TEST_F(Calls, AnIdlePairWithoutItsDataIsNone) {
  const std::string base = folder_ / "pair";
  ::isvclose(9);
  for (const bool erases : {false, true}) {
    ASSERT_EQ(::isclose(build("pair", 1)), 0);
    ASSERT_EQ(pairs_open(), 1);
    std::filesystem::remove(base + ".dat");
    const int result =
        erases ? ::iserase(base.c_str()) : ::isopen(base.c_str(), ISINOUT + ISAUTOLOCK);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(iserrno, ENOENT);
    EXPECT_EQ(iserrio, 0x12);
    EXPECT_EQ((std::string{isstat1, isstat2, isstat3, isstat4}), "9035");
    EXPECT_EQ(pairs_open(), 0);
    EXPECT_EQ(std::filesystem::remove(base + ".idx"), !erases);
  }
  ::isvclose(0);
}

TEST_F(Calls, ACleanupClosesEverythingAndTellsTheFirstFailure) {
  int opens[] = {build("a", 1), build("b", 1, ISMANULOCK), build("c", 1)};
  ::isvclose(9);
  ::isclose(build("d", 1));
  EXPECT_EQ(::isrewrec(opens[0], 1, record_of(7).data()), 0);
  EXPECT_EQ(::isrewrec(opens[2], 1, record_of(7).data()), 0);
  common::SystemCalls& calls = common::system_calls();
  const common::SystemCalls real = calls;
  calls.pwrite = refuse_write;
  system_error = ENOSPC;
  EXPECT_EQ(::iscleanup(), -1);
  system_error = 0;
  calls = real;
  EXPECT_EQ(iserrno, ENOSPC);
  EXPECT_EQ((std::string{isstat1, isstat2, isstat3, isstat4}), "9090");
  EXPECT_EQ(pairs_open(), 0);
  for (const int isfd : opens) EXPECT_EQ(::isflush(isfd), -1);
  // What was told before it stays when nothing fails.
  opens[0] = build("e", 1);
  EXPECT_EQ(::isdelrec(opens[0], 9), -1);
  EXPECT_EQ(::iscleanup(), 0);
  EXPECT_EQ(iserrno, ISENORECORD);
  EXPECT_EQ((std::string{isstat1, isstat2, isstat3, isstat4}), "2323");
  EXPECT_EQ(pairs_open(), 0);
  ::isvclose(0);
}

}  // namespace
}  // namespace testing_support
