// Transactions as an application sees them, and what they leave in the log.
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "tests/support/child_process.h"
#include "tests/txlog/log_fixture.h"

namespace testing_support {
namespace {

class Transactions : public LogTest {
 protected:
  Transactions() {
    isfd_ = (build("pair", -1), ::islogopen("log"), open("pair"));
    EXPECT_GE(isfd_, 0);
  }
  int isfd_;
};
INSTANTIATE_TEST_SUITE_P(Formats, Transactions, ::testing::Bool(),
                         [](const auto& format) { return format.param ? "Varying" : "Fixed"; });

std::string hex(const Byte* from, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    char two[3];
    std::snprintf(two, sizeof two, "%02x", from[i]);
    text += two;
  }
  return text;
}

TEST_P(Transactions, LogEachChangeByteForByte) {
  const int before = static_cast<int>(::time(nullptr));
  ASSERT_EQ(::isbegin(), 0);
  ASSERT_EQ(write(isfd_, row(1, 7)), 0);
  ASSERT_EQ(rewrite(isfd_, row(1, 8)), 0);
  ASSERT_EQ(erase(isfd_, 1), 0);
  ASSERT_EQ(::iscommit(), 0);
  std::int32_t id = 0;
  ASSERT_EQ(::isuniqueid(isfd_, &id), 0);
  ASSERT_EQ(::issetunique(isfd_, 77), 0);
  ASSERT_EQ(::isclose(isfd_), 0);
  EXPECT_EQ(types(), "BW FO IN UP DE CW UN SU FC");

  const Image log = read_file("log");
  const auto ids = hex(
      [] {
        static Byte bytes[6];
        put4(bytes, ::getpid());
        put2(bytes + 4, static_cast<int>(::getuid() & 0xFFFF));
        return bytes;
      }(),
      6);
  const auto text = [](const std::string& of) {
    return hex(reinterpret_cast<const Byte*>(of.data()), of.size());
  };
  const std::string isfd = "0000";
  const std::string name = text("pair") + "00";
  const std::string varlen = varying() ? "0001" : "0000";
  // Type, link, payload; the length goes around them.
  struct Expected {
    const char* letters;
    int previous;  // index of the record it refers to, -1 for none
    std::string payload;
  };
  const std::vector<Expected> expected = {
      {"BW", -1, ""},
      {"FO", -1, isfd + varlen + name},
      {"IN", 0, isfd + "00000001" + "0010" + text(row(1, 7))},
      {"UP", 2, isfd + "00000001" + "00100010" + text(row(1, 7)) + text(row(1, 8))},
      {"DE", 3, isfd + "00000001" + "0010" + text(row(1, 8))},
      {"CW", 4, ""},
      {"UN", -1, isfd + "00000001"},
      {"SU", -1, isfd + "0000004d"},
      {"FC", -1, isfd + varlen + name},
  };
  EXPECT_EQ(hex(log.data(), 4), "fb859e78");
  std::vector<std::pair<std::int64_t, int>> places;
  std::size_t at = 4;
  for (const Expected& record : expected) {
    const int length = 26 + static_cast<int>(record.payload.size() / 2);
    Byte head[14];
    put2(head, length);
    std::memcpy(head + 2, record.letters, 2);
    ASSERT_LE(at + static_cast<std::size_t>(length), log.size());
    EXPECT_EQ(hex(&log[at], 4) + hex(&log[at + 4], 6), hex(head, 4) + ids);
    EXPECT_GE(get4(&log[at + 10]), before);
    EXPECT_LE(get4(&log[at + 10]), before + 60);
    Byte link[10] = {};
    if (record.previous >= 0) {
      const auto& [offset, size] = places[static_cast<std::size_t>(record.previous)];
      put4(link + 4, offset);
      put2(link + 8, size);
    }
    EXPECT_EQ(hex(&log[at + 14], 10), hex(link, 10)) << record.letters;
    EXPECT_EQ(hex(&log[at + 24], record.payload.size() / 2), record.payload) << record.letters;
    EXPECT_EQ(get2(&log[at + static_cast<std::size_t>(length) - 2]), length);
    places.emplace_back(at, length);
    at += static_cast<std::size_t>(length);
  }
  EXPECT_EQ(at, log.size());
}

TEST_P(Transactions, LogChangesOfFiles) {
  keydescr extra{KF_DUPS, 2, {{0, 4, KT_LONG}, {4, 2, KT_INT | KT_DESC}}, 0, 0};
  ::isclose(isfd_);
  const int alone = ::isopen("pair", ISINOUT + ISEXCLLOCK + format());
  ASSERT_EQ(::isaddindex(alone, &extra), 0);
  ASSERT_EQ(::isdelindex(alone, &extra), 0);
  keydescr id = id_key();
  const int clustered = ::iscluster(alone, &id);
  ASSERT_GE(clustered, 0);
  ::isclose(clustered);
  keydescr other = id_key();
  ::isreclen = kMinimum;
  const int mode = ISINOUT + ISEXCLLOCK + format();
  const int made = ::isbuild("made", 100, &other, mode);
  ::isclose(made);
  ASSERT_EQ(::isrename("made", "renamed"), 0);
  ASSERT_EQ(::iserase("renamed"), 0);
  EXPECT_EQ(types(), "FO CI DI CL FC BU RE ER");

  const Image log = read_file("log");
  const auto find = [&](const char* letters) {
    std::size_t at = 4;
    while (std::memcmp(&log[at + 2], letters, 2) != 0) {
      at += static_cast<std::size_t>(get2(&log[at]));
    }
    return std::string{hex(&log[at + 24], static_cast<std::size_t>(get2(&log[at])) - 26)};
  };
  EXPECT_EQ(find("CI"),
            "0000"
            "0001"
            "0002"
            "0006"
            "000000040002"
            "000400020081");
  EXPECT_EQ(find("DI"), find("CI"));
  EXPECT_EQ(find("CL"),
            "0000"
            "0000"
            "0001"
            "0008"
            "000000080000");
  char head[64];
  std::snprintf(head, sizeof head, "%04x%04x%04x", static_cast<unsigned>(mode), kMinimum, 100);
  EXPECT_EQ(find("BU"), std::string{head} +
                            "0000"
                            "0001"
                            "0008"
                            "000000080000"
                            "6d61646500");
  EXPECT_EQ(find("RE"),
            "0005"
            "0008"
            "6d61646500"
            "72656e616d656400");
  EXPECT_EQ(find("ER"), "72656e616d656400");
}

TEST_P(Transactions, LogNothingThatDidNotHappen) {
  ASSERT_EQ(::isbegin(), 0);
  ASSERT_EQ(::iscommit(), 0);
  ASSERT_EQ(::isbegin(), 0);
  ASSERT_EQ(::isrollback(), 0);
  EXPECT_EQ(types(), "");
  const int silent = open("pair", ISNOLOG);
  ASSERT_EQ(write(silent, row(1, 1)), 0);
  ASSERT_EQ(::issusplog(), 0);
  ASSERT_EQ(write(isfd_, row(2, 1)), 0);
  ASSERT_EQ(::isresumlog(), 0);
  EXPECT_EQ(types(), "");
  // A write that is refused leaves nothing, neither does one of a pair that is full.
  EXPECT_EQ(write(isfd_, row(1, 1)), -1);
  EXPECT_EQ(iserrno, ISEDUPLICATE);
  EXPECT_EQ(types(), "");
}

TEST_P(Transactions, RefuseWhatIsOutOfPlace) {
  EXPECT_EQ(::iscommit(), -1);
  EXPECT_EQ(iserrno, ISENOBEGIN);
  EXPECT_EQ(::isrollback(), -1);
  EXPECT_EQ(iserrno, ISENOBEGIN);
  EXPECT_EQ(open("pair", ISTRANS + ISNOLOG), -1);
  EXPECT_EQ(iserrno, ISEARGUMENT);
  EXPECT_EQ(::islogopen("log"), -1);
  EXPECT_EQ(iserrno, ISELOGOPEN);
  ASSERT_EQ(::islogclose(), 0);
  EXPECT_EQ(::islogclose(), -1);
  EXPECT_EQ(iserrno, ISENOTOPEN);
  for (int (*const call)() : {::isbegin, ::iscommit, ::isrollback}) {
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(iserrno, ISENOLOG);
    EXPECT_EQ(isstat1, '9');
  }
  EXPECT_EQ(open("pair", ISTRANS), -1);
  EXPECT_EQ(iserrno, ISEARGUMENT);
  EXPECT_EQ(isstat4, '7');

  EXPECT_EQ(::islogopen("none"), -1);
  EXPECT_EQ(iserrno, ISELOGOPEN);
  for (const auto& [bytes, code] :
       std::vector<std::pair<Image, int>>{{{0xFB}, ISELOGREAD},
                                          {{0xFB, 0x85, 0x9E}, ISELOGREAD},
                                          {{0xFB, 0x85, 0x9E, 0x79}, ISELOGMAGIC}}) {
    write_file("other", bytes);
    EXPECT_EQ(::islogopen("other"), -1);
    EXPECT_EQ(iserrno, code);
    EXPECT_EQ(read_file("other"), bytes);
  }
}

TEST_P(Transactions, FreeNumbersAndStorageOnCommitOnly) {
  for (int id = 1; id <= 20; ++id) ASSERT_EQ(write(isfd_, row(id, 0, filler(1000))), 0);
  ASSERT_EQ(::isbegin(), 0);
  for (int id = 1; id <= 10; ++id) ASSERT_EQ(erase(isfd_, id), 0);
  for (int id = 11; id <= 20; ++id) ASSERT_EQ(rewrite(isfd_, row(id, 1, filler(10))), 0);
  ASSERT_EQ(write(isfd_, row(50, 0)), 0);
  EXPECT_EQ(isrecnum, 21) << "numbers of deleted records are kept";
  ASSERT_EQ(::iscommit(), 0);
  EXPECT_EQ(rows(isfd_).size(), 11U);
  std::vector<int> numbers;
  for (int id = 60; id < 70; ++id) {
    ASSERT_EQ(write(isfd_, row(id, 0)), 0);
    numbers.push_back(isrecnum);
  }
  // The list of free numbers gives the last first.
  EXPECT_EQ(numbers, (std::vector{10, 9, 8, 7, 6, 5, 4, 3, 2, 1}));
  ::iscleanup();
  EXPECT_EQ(faults("pair"), "");
}

TEST_P(Transactions, PutACloseOff) {
  ASSERT_EQ(write(isfd_, row(1, 1)), 0);
  ASSERT_EQ(::isbegin(), 0);
  ASSERT_EQ(write(isfd_, row(2, 1)), 0);
  ASSERT_EQ(::isclose(isfd_), 0);
  std::string record(kMaximum, 0);
  char* const bytes = record.data();
  keydescr key = id_key();
  int number = 0;
  dictinfo info{};
  const std::function<int()> calls[] = {
      [&] { return ::isclose(isfd_); },
      [&] { return ::isread(isfd_, bytes, RD_FIRST); },
      [&] { return ::isstart(isfd_, &key, 0, bytes, RD_FIRST); },
      [&] { return write(isfd_, row(3, 1)); },
      [&] { return rewrite(isfd_, row(1, 2)); },
      [&] { return erase(isfd_, 1); },
      [&] { return ::isdelrec(isfd_, 1); },
      [&] { return ::isflush(isfd_); },
      [&] { return ::isrelease(isfd_); },
      [&] { return ::islock(isfd_); },
      [&] { return ::isunlock(isfd_); },
      [&] { return ::isfilelocked(isfd_, 0); },
      [&] { return ::isuniqueid(isfd_, &number); },
      [&] { return ::isaltinc(isfd_); },
      [&] { return ::isaltchk(isfd_, &number); },
      [&] { return ::isdictinfo(isfd_, &info); },
      [&] { return ::iskeyinfo(isfd_, &key, 1); },
      [&] { return ::iststindex(isfd_, &key); },
      [&] { return ::isaddindex(isfd_, &key); },
      [&] { return ::isdelindex(isfd_, &key); },
      [&] { return ::iscluster(isfd_, &key); },
      [&] { return ::isaudit(isfd_, bytes, AUDINFO); },
  };
  for (const auto& call : calls) {
    EXPECT_EQ(call(), -1) << &call - calls;
    EXPECT_EQ(iserrno, ISENOTOPEN) << &call - calls;
  }
  EXPECT_NE(open("pair", 0), isfd_) << "another mode";
  EXPECT_EQ(open("pair"), isfd_);
  EXPECT_EQ(isreclen, varying() ? kMaximum : kMinimum);
  ASSERT_EQ(::isread(isfd_, record.data(), RD_NEXT), 0);
  EXPECT_EQ(record.substr(0, kMinimum), row(1, 1));
  ASSERT_EQ(::isclose(isfd_), 0);
  ASSERT_EQ(::isrollback(), 0);
  EXPECT_EQ(types(), "FO IN BW IN FC RW");
  EXPECT_EQ(open("pair"), isfd_) << "the number is free again";
  EXPECT_EQ(rows(isfd_), Rows{row(1, 1)});
}

// An open without ISTRANS has no part in the transaction, and one that was built with it has, also
// if there was no log then.
TEST_P(Transactions, KeepOnlyWhatIsOfThem) {
  const int plain = open("pair", 0);
  ASSERT_EQ(::isbegin(), 0);
  ASSERT_EQ(write(plain, row(1, 1)), 0);
  ASSERT_EQ(::isclose(plain), 0);
  EXPECT_EQ(types(), "BW FO IN FC") << "it closes at once";
  ASSERT_EQ(write(isfd_, row(2, 1)), 0);
  ASSERT_EQ(::isrollback(), 0);
  EXPECT_EQ(rows(isfd_), Rows{row(1, 1)});

  ASSERT_EQ(::islogclose(), 0);
  keydescr key = id_key();
  isreclen = kMinimum;
  int built = ::isbuild("built", varying() ? kMaximum : kMinimum, &key,
                        ISINOUT + ISEXCLLOCK + ISTRANS + format());
  built = ::iscluster(built, &key);
  ASSERT_GE(built, 0);
  ASSERT_EQ(::islogopen("log"), 0);
  ASSERT_EQ(::isbegin(), 0);
  ASSERT_EQ(write(built, row(1, 1)), 0);
  EXPECT_EQ(::iscluster(built, &key), -1) << "the records to be undone would get other numbers";
  EXPECT_EQ(iserrno, ISEINUSE);
  ASSERT_EQ(::isrollback(), 0);
  EXPECT_EQ(rows(built, key), Rows{});
}

// A record that a rollback takes away is nobody's current record any more, whoever gets its number.
TEST_P(Transactions, LeaveNoCurrentRecordThatTheyTookBack) {
  const int other = open("pair", 0);
  keydescr numbers{};
  for (keydescr key : {numbers, id_key()}) {
    for (const int isfd : {isfd_, other}) {
      std::string record(kMaximum, 0);
      ASSERT_EQ(::isbegin(), 0);
      ASSERT_EQ(write(isfd_, row(1, 1)), 0);
      ASSERT_EQ(::isstart(isfd, &key, 0, record.data(), RD_FIRST), 0);
      ASSERT_EQ(::isread(isfd, record.data(), RD_NEXT), 0);
      ASSERT_EQ(::isrollback(), 0);
      ASSERT_EQ(write(isfd_, row(1, 2)), 0);
      ASSERT_EQ(isrecnum, 1);
      EXPECT_EQ(::isdelcurr(isfd), -1);
      EXPECT_EQ(iserrno, ISENOCURRENT);
      EXPECT_EQ(rows(isfd_), Rows{row(1, 2)});
      ASSERT_EQ(erase(isfd_, 1), 0);
    }
  }
}

// An open that was closed inside a transaction is in the way of changes to the file as a whole only
// when they could make its own changes impossible to undo.
TEST_P(Transactions, GiveUpWhatTheyNeedNotKeep) {
  ASSERT_EQ(write(isfd_, row(1, 1)), 0);
  for (const bool changes : {false, true}) {
    for (const bool clusters : {false, true}) {
      ASSERT_EQ(::isbegin(), 0);
      const int alone = ::isopen("pair", ISINOUT + ISEXCLLOCK + ISTRANS + format());
      if (changes) {
        ASSERT_EQ(write(isfd_, row(2, 1)), 0);
      }
      keydescr key = group_key();
      const auto change = [&] {
        return clusters ? ::iscluster(alone, &key) : ::isdelindex(alone, &key);
      };
      EXPECT_EQ(change(), -1) << "in use";
      EXPECT_EQ(iserrno, ISEINUSE);
      ASSERT_EQ(::isclose(isfd_), 0);
      const int changed = change();
      EXPECT_EQ(iserrno, changes ? ISEINUSE : 0);
      EXPECT_EQ(changed < 0, changes);
      if (changed == 0 && !clusters) {
        EXPECT_EQ(::isaddindex(alone, &key), 0);
      }
      EXPECT_EQ(::isclose(clusters && changed >= 0 ? changed : alone), 0);
      EXPECT_EQ(::isrollback(), 0);
      isfd_ = open("pair");
      EXPECT_EQ(rows(isfd_), Rows{row(1, 1)});
    }
  }
  ::iscleanup();
  EXPECT_EQ(faults("pair"), "");
}

// The lock of a record's number, which is its id here.
bool locked(int number) { return byte_locked("pair.idx", 0x40000000 + number); }

// The whole file is locked around a change, through the open of the transaction or another, and
// unlocked before the end: what was changed stays locked until then, the rest does not.
TEST_P(Transactions, KeepWhatTheyChangedUnderALockOfTheFile) {
  constexpr int kLast = 0x3FFFFFFD;
  for (int id = 1; id <= 5; ++id) ASSERT_EQ(write(isfd_, row(id, 0)), 0);
  const int plain = open("pair", 0);
  const int reader = ::isopen("pair", ISINPUT + ISMANULOCK + format());
  struct Case {
    int locker;
    bool suspended;  // while it is unlocked
    bool stays;      // no other than the reader has locked the file
  };
  for (const auto& [locker, suspended, stays] : {Case{plain, false, false},
                                                 {isfd_, false, false},
                                                 {plain, true, false},
                                                 {reader, false, true}}) {
    SCOPED_TRACE(locker);
    ASSERT_EQ(::isbegin(), 0);
    ASSERT_EQ(rewrite(isfd_, row(2, 1)), 0);
    ASSERT_EQ(::islock(locker), 0);
    ASSERT_EQ(rewrite(isfd_, row(3, 1)), 0);
    ASSERT_EQ(rewrite(isfd_, row(5, 1)), 0);
    EXPECT_TRUE(locked(1) && locked(kLast));
    if (suspended) ::issusplog();
    if (!stays) {
      ASSERT_EQ(::isunlock(locker), 0);
    }
    if (suspended) ::isresumlog();
    for (const int number : {1, 2, 3, 4, 5, 6, kLast}) {
      const bool changed = number == 2 || number == 3 || number == 5;
      EXPECT_EQ(locked(number), changed || stays) << number;
    }
    ASSERT_EQ(::iscommit(), 0);
    for (const int number : {0, 2, 3, 5, kLast}) EXPECT_EQ(locked(number), stays) << number;
    ASSERT_EQ(::isunlock(locker), 0);
    EXPECT_FALSE(locked(2) || locked(kLast));
  }

  // An exclusive open that has no part in the transaction goes before it ends.
  const int alone = ::isopen("pair", ISINOUT + ISEXCLLOCK + ISNOLOG + format());
  ASSERT_EQ(::isbegin(), 0);
  ASSERT_EQ(rewrite(isfd_, row(2, 2)), 0);
  ASSERT_EQ(::islock(reader), 0);
  ASSERT_EQ(::isclose(alone), 0);
  EXPECT_TRUE(locked(1));
  ASSERT_EQ(::isunlock(reader), 0);
  EXPECT_TRUE(locked(2));
  EXPECT_FALSE(locked(1));
  ASSERT_EQ(::isrollback(), 0);
  EXPECT_FALSE(locked(2));

  // What was only read is released before the end.
  std::string record = row(3, 0, kMaximum - kMinimum);
  ASSERT_EQ(::isbegin(), 0);
  ASSERT_EQ(rewrite(isfd_, row(1, 3)), 0);
  ASSERT_EQ(::isread(isfd_, record.data(), RD_EQUAL + RD_LOCK), 0);
  EXPECT_TRUE(locked(1) && locked(3));
  ASSERT_EQ(::isrelease(isfd_), 0);
  EXPECT_TRUE(locked(1));
  EXPECT_FALSE(locked(3)) << "only read";
  ASSERT_EQ(::iscommit(), 0);
  EXPECT_FALSE(locked(1));
}

TEST_P(Transactions, AreRolledBackByACleanup) {
  constexpr off_t kOpenLock = 0x7FFFFFFF;
  for (const bool suspended : {false, true}) {
    ASSERT_EQ(write(isfd_, row(1, 1)), suspended ? -1 : 0);
    ASSERT_EQ(::isbegin(), 0);
    ASSERT_EQ(write(isfd_, row(2, 1)), 0);
    ASSERT_EQ(::isclose(isfd_), 0);
    const int other = open("pair");
    ASSERT_EQ(write(other, row(3, 1)), 0);
    if (suspended) ::issusplog();
    EXPECT_EQ(::iscleanup(), 0);
    EXPECT_FALSE(byte_locked("pair.idx", kOpenLock));
    if (suspended) {
      EXPECT_EQ(::isbegin(), -1);
      EXPECT_EQ(iserrno, ISENOLOG);
      ::isresumlog();
    }
    EXPECT_EQ(::iscommit(), -1);
    EXPECT_EQ(iserrno, ISENOBEGIN);
    isfd_ = open("pair");
    EXPECT_EQ(rows(isfd_), Rows{row(1, 1)});
  }
  ::iscleanup();
  EXPECT_EQ(faults("pair"), "");
}

}  // namespace
}  // namespace testing_support
