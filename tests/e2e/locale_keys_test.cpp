// Keys in the order of a locale, from the library's calls to the program's repairs.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "isam.h"
#include "locale/collation.h"
#include "tests/support/locales.h"
#include "tests/support/pair_builder.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

constexpr int kName = 16;
constexpr int kRecord = 24;
constexpr std::size_t kNodeSize = 1024;

// A name, and a number that makes the record unique.
struct Row {
  std::string name;
  std::int32_t number = 0;
};

std::string record_of(const Row& row) {
  std::string record(kRecord, ' ');
  stchar(row.name.c_str(), record.data(), kName);
  stlong(row.number, &record[kName]);
  return record;
}

keydescr name_and_number() { return {0, 2, {{0, kName, KT_LOCALE}, {kName, 4, KT_LONG}}, 0, 0}; }
keydescr by_number() { return {0, 1, {{kName, 4, KT_LONG}}, 0, 0}; }
keydescr name_backwards() {
  return {KF_DUPS | KF_COMPRESS, 1, {{0, kName, KT_LOCALE | KT_DESC}}, 0, 0};
}

int order(const std::string& a, const std::string& b) {
  const auto name = [](const std::string& record) {
    return common::ConstBytes{reinterpret_cast<const common::Byte*>(record.data()), kName};
  };
  return locale::compare(name(a), name(b));
}

class LocaleKeys : public testing::Test {
 protected:
  ~LocaleKeys() override { iscleanup(); }

  static bool have(const std::string& language) { return make_locale(language, "UTF-8"); }

  static void become_client(const char* name) {
    ::setenv("CLIENT_LOCALE", name, 1);
    ASSERT_EQ(locale::initulx(), 0) << name;
  }

  // Builds the pair under the client's locale and leaves it open.
  int build(keydescr key) { return isbuild(base_.c_str(), kRecord, &key, ISINOUT + ISEXCLLOCK); }

  // The records in the order of a key.
  static std::vector<std::string> walk(int isfd, keydescr key) {
    std::vector<std::string> records;
    std::string record(kRecord, ' ');
    EXPECT_EQ(isstart(isfd, &key, 0, record.data(), RD_FIRST), 0);
    while (isread(isfd, record.data(), RD_NEXT) == 0) records.push_back(record);
    EXPECT_EQ(iserrno, ISEEND);
    return records;
  }

  std::string kestro(const std::string& options) {
    return run_program({.words = {KESTRO_PROGRAM, options, "pair"}, .folder = folder_.path()}).out;
  }

  void expect_sound() {
    const std::string report = kestro("-nq");
    EXPECT_EQ(report.find("ERROR"), std::string::npos) << report;
    EXPECT_EQ(report.find('?'), std::string::npos) << report;
  }

  TempFolder folder_;
  std::string base_ = folder_ / "pair";
};

// Names of all kinds, whole characters, torn ones and none.
std::string random_name(std::mt19937& random) {
  static const std::vector<std::string> pieces = {"a",        "b",        "Z",    "e", " ",   "-",
                                                  "\xC3\xA4", "\xC3\x85", "\xC3", "o", "\xFF"};
  std::string name;
  for (std::size_t count = random() % 8; count > 0; --count) {
    name += pieces[random() % pieces.size()];
  }
  return name;
}

struct Client {
  const char* language;  // null: none needs to be made
  const char* name;
};

class LocaleKeysOf : public LocaleKeys, public testing::WithParamInterface<Client> {
 protected:
  void SetUp() override {
    if (GetParam().language != nullptr && !have(GetParam().language)) {
      GTEST_SKIP() << "no localedef, or no sources for " << GetParam().name;
    }
    become_client(GetParam().name);
  }

  static void expect_order(const std::vector<std::string>& records, bool backwards) {
    int wrong = 0;
    for (std::size_t i = 1; i < records.size(); ++i) {
      const int names = order(records[i - 1], records[i]);
      if (backwards) {
        wrong += names < 0;
      } else {
        wrong += names > 0 ||
                 (names == 0 && ldlong(&records[i - 1][kName]) >= ldlong(&records[i][kName]));
      }
    }
    EXPECT_EQ(wrong, 0);
  }

  static void expect_every_record(int isfd, std::size_t count) {
    const std::vector<std::string> forwards = walk(isfd, name_and_number());
    EXPECT_EQ(forwards.size(), count);
    expect_order(forwards, false);
    const std::vector<std::string> backwards = walk(isfd, name_backwards());
    EXPECT_EQ(backwards.size(), count);
    expect_order(backwards, true);
  }
};

TEST_P(LocaleKeysOf, ServeFromBuildingToRemaking) {
  constexpr std::int32_t kRows = 2000, kWritten = 1500;
  std::mt19937 random(3);
  const int isfd = build(name_and_number());
  ASSERT_GE(isfd, 0);
  keydescr added = name_backwards();
  std::vector<std::string> records;
  for (std::int32_t number = 0; number < kRows; ++number) {
    if (number == kRows / 2) {
      ASSERT_EQ(isaddindex(isfd, &added), 0);
    }
    records.push_back(record_of({random_name(random), number}));
    recordset set{1, records.back().data(), kRecord, &isrecnum, nullptr};
    if (number == kWritten) {
      ASSERT_EQ(isloadbegin(isfd), 0);
    }
    ASSERT_EQ(number < kWritten ? iswrite(isfd, set.records) : isload(isfd, &set) - 1, 0) << number;
  }
  ASSERT_EQ(isloadend(isfd, nullptr, 0), 0);
  EXPECT_EQ(added.flags, KF_DUPS) << "a locale key is not compressed";
  EXPECT_STREQ(islanginfo(base_.c_str()), GetParam().name);
  expect_every_record(isfd, kRows);

  // By the whole key, by a part of it, and not by a piece of a name.
  keydescr key = name_and_number();
  std::string room = records[7];
  ASSERT_EQ(isstart(isfd, &key, 0, room.data(), RD_EQUAL), 0);
  ASSERT_EQ(isread(isfd, room.data(), RD_CURR), 0);
  EXPECT_EQ(room, records[7]);
  ASSERT_EQ(isstart(isfd, &key, kName, room.data(), RD_GREAT), 0);
  ASSERT_EQ(isread(isfd, room.data(), RD_CURR), 0);
  EXPECT_GT(order(room, records[7]), 0);
  EXPECT_EQ(isstart(isfd, &key, kName - 1, room.data(), RD_GTEQ), -1);
  EXPECT_EQ(iserrno, ISEARGUMENT);

  for (std::size_t i = 0; i < records.size(); ++i) {
    room = records[i];
    if (i % 3 == 0) {
      ASSERT_EQ(isdelete(isfd, room.data()), 0) << i;
    }
    if (i % 3 != 1) continue;
    ASSERT_EQ(isread(isfd, room.data(), RD_EQUAL), 0) << i;
    stchar(random_name(random).c_str(), room.data(), kName);
    ASSERT_EQ(isrewcurr(isfd, room.data()), 0) << i;
  }
  const std::size_t left = records.size() - (records.size() + 2) / 3;
  expect_every_record(isfd, left);
  iscleanup();
  expect_sound();

  Image index = read_file(base_ + ".idx");
  const auto root = index.begin() + std::ptrdiff_t{kNodeSize} * (key.rootnode - 1);
  std::fill(root, root + kNodeSize, Byte{0xEE});
  write_file(base_ + ".idx", index);
  EXPECT_NE(kestro("-yq").find("Remake index ? yes"), std::string::npos);
  expect_sound();
  const int again = isopen(base_.c_str(), ISINOUT + ISMANULOCK);
  ASSERT_GE(again, 0);
  expect_every_record(again, left);
}

INSTANTIATE_TEST_SUITE_P(Clients, LocaleKeysOf,
                         testing::Values(Client{nullptr, "c"}, Client{"de_DE", "de_de.utf8"},
                                         Client{"sv_SE", "sv_se.utf8"}));

TEST_F(LocaleKeys, BelongToTheLocaleThatTheyWereBuiltUnder) {
  if (!have("de_DE") || !have("sv_SE")) GTEST_SKIP() << "no localedef, or no sources";
  const std::string names[] = {"Zorn", "\u00c5berg", "\u00d6stlund", "Arm", "arm", "Otto"};
  const auto built_under = [&](const char* client) {
    iserase(base_.c_str());
    become_client(client);
    const int isfd = build(name_and_number());
    for (const std::string& name : names) {
      std::string record = record_of({name, 1});
      EXPECT_EQ(iswrite(isfd, record.data()), 0);
    }
    std::string line;
    for (const std::string& record : walk(isfd, name_and_number())) {
      line += record.substr(0, record.find(' ')) + " ";
    }
    iscleanup();
    return line;
  };
  EXPECT_EQ(built_under("sv_SE.UTF-8"), "arm Arm Otto Zorn \u00c5berg \u00d6stlund ");
  EXPECT_EQ(built_under("DE_de.UTF-8"), "\u00c5berg arm Arm \u00d6stlund Otto Zorn ");

  expect_sound();
  become_client("sv_SE.UTF-8");
  EXPECT_EQ(isopen(base_.c_str(), ISINPUT + ISMANULOCK), -1);
  EXPECT_EQ(iserrno, ISECOLLATION);
  EXPECT_EQ(isnlsversion(base_.c_str()), 1);
  EXPECT_STREQ(islanginfo(base_.c_str()), "de_de.utf8");
}

// What the collation does not tell apart is one key, though the record has its own bytes.
TEST_F(LocaleKeys, MayOccurOnceInAllSpellings) {
  if (!have("de_DE")) GTEST_SKIP() << "no localedef, or no sources";
  become_client("de_DE.UTF-8");
  std::string first = record_of({"\u0378", 1});
  std::string second = record_of({"\u0379", 2});
  if (order(first, second) != 0) GTEST_SKIP() << "the system tells unassigned characters apart";
  const keydescr by_name{0, 1, {{0, kName, KT_LOCALE}}, 0, 0};
  const int isfd = build(by_name);
  ASSERT_EQ(iswrite(isfd, first.data()), 0);
  EXPECT_EQ(iswrite(isfd, second.data()), -1);
  EXPECT_EQ(iserrno, ISEDUPLICATE);
  EXPECT_EQ(isrewrite(isfd, second.data()), 0);
  EXPECT_EQ(walk(isfd, by_name), std::vector<std::string>{second});
  std::string room = first;
  EXPECT_EQ(isread(isfd, room.data(), RD_EQUAL), 0);
  EXPECT_EQ(room, second);
  iscleanup();
  expect_sound();
}

// The library wants the whole name; the program is content with its beginning.
TEST_F(LocaleKeys, AreNotThoseOfALocaleWithAnotherName) {
  become_client("c");
  PairSpec spec = mixed_spec(512, 40, 2);
  spec.collation = "xx_yy.nowhere";
  build_pair(spec, base_);
  const std::string refusal = kestro("-nq");
  EXPECT_NE(refusal.find("\nCLIENT_LOCALE does not match ISAM file collation.\n"
                         "ISAM file collation is xx_yy.nowhere.\n\n"),
            std::string::npos)
      << refusal;
  EXPECT_EQ(refusal.find("Checking data"), std::string::npos);
  spec.collation = "c.more";
  build_pair(spec, base_);
  EXPECT_EQ(isopen(base_.c_str(), ISINPUT + ISMANULOCK), -1);
  EXPECT_EQ(iserrno, ISECOLLATION);
  EXPECT_NE(kestro("-nq").find("Checking data file records."), std::string::npos);
  spec.collation = "c" + std::string(35, ' ');
  build_pair(spec, base_);
  EXPECT_EQ(isopen(base_.c_str(), ISINPUT + ISMANULOCK), 0) << iserrno;
}

// Nothing but adding the index asks for the locale.
TEST_F(LocaleKeys, AreInOrderWhenTheFirstIsAddedToAFileWithRecords) {
  if (!have("de_DE")) GTEST_SKIP() << "no localedef, or no sources";
  if (!locale::file_system_name().empty()) GTEST_SKIP() << "the process has a client locale";
  ::setenv("CLIENT_LOCALE", "de_DE.UTF-8", 1);
  const int isfd = build(by_number());
  for (const Row& row : {Row{"Otto", 1}, Row{"\u00d6stlund", 2}, Row{"Zorn", 3}}) {
    std::string record = record_of(row);
    ASSERT_EQ(iswrite(isfd, record.data()), 0);
  }
  keydescr key = name_backwards();
  ASSERT_EQ(isaddindex(isfd, &key), 0);
  std::string numbers;
  for (const std::string& record : walk(isfd, key)) {
    numbers += std::to_string(ldlong(&record[kName]));
  }
  EXPECT_EQ(numbers, "312");
}

}  // namespace
}  // namespace testing_support
