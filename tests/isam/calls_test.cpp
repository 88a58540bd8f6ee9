// The texts of codes, and calls on many records at once. (How calls tell what went wrong,
// and what stays open: tests/scripts/calls.)
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "isam.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

namespace fs = std::filesystem;

std::string record_of(int id) { return std::to_string(10'000'000 + id) + "and so on   "; }

// The manual page has them all.
TEST(Calls, EveryCodeHasItsText) {
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

TEST(Calls, ManyRecordsAreRefusedAsAWhole) {
  const TempFolder folder;
  keydescr key{0, 1, {{0, 8, KT_CHAR}}, 0, 0};
  const std::string base = folder / "pair";
  int isfd = ::isbuild(base.c_str(), 20, &key, ISINOUT + ISEXCLLOCK);
  for (int id = 1; id <= 5; ++id) ::iswrite(isfd, record_of(id).data());
  ::isclose(isfd);
  isfd = ::isopen(base.c_str(), ISINOUT + ISMANULOCK);
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
    EXPECT_TRUE(set.lengths == nullptr || refuses(::isrewritemany(isfd, &set)));
    EXPECT_TRUE(set.lengths == nullptr || refuses(::isload(isfd, &set)));
  }
  EXPECT_TRUE(refuses(::isloadend(isfd, nullptr, 1)) &&
              refuses(::isloadend(isfd, &numbers[0], -1)));
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
  ::iscleanup();
}

}  // namespace
}  // namespace testing_support
