// Single calls on many records, two opens, and the texts of codes. (How calls tell what went wrong,
// and what stays open: tests/scripts/calls.)
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>

#include "isam.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

namespace fs = std::filesystem;

std::string record_of(int id) { return std::to_string(10'000'000 + id) + "and so on   "; }

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

// The manual page has them all.
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

}  // namespace
}  // namespace testing_support
