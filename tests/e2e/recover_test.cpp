// isrecover as its operator meets it: listings, recoveries, audit trails, and damage to all three.
#include <sys/stat.h>

#include "tests/txlog/log_fixture.h"

namespace testing_support {
namespace {

constexpr int kAll = 0, kSome = 1, kFailed = 2;

using Words = std::vector<std::string>;

class Recover : public LogTest {
 protected:
  static RunResult isrecover(Words words, const std::string& folder = ".") {
    words.insert(words.begin(), ISRECOVER_PROGRAM);
    RunResult run = run_program(
        {.words = std::move(words), .folder = folder, .environment = {}, .seconds = 30});
    EXPECT_TRUE(run.status >= kAll && run.status <= kFailed && !run.timed_out)
        << "status " << run.status << ", signal " << run.signal
        << (run.timed_out ? ", timed out\n" : "\n") << run.err;
    // A sanitizer's report ends the program with a status like any other.
    EXPECT_FALSE(has(run.err, "Sanitizer") || has(run.err, "runtime error")) << run.err;
    return run;
  }
  static bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }
  // Expects each of the parts in the text, in this order.
  static void expect_in_order(const std::string& text, const Words& parts) {
    std::size_t at = 0;
    for (const std::string& part : parts) {
      const std::size_t found = text.find(part, at);
      if (found == std::string::npos) {
        ADD_FAILURE() << part << " is not in, or not in its place in\n" << text;
        return;
      }
      at = found + part.size();
    }
  }

  // A log with a commit, a rollback, a change outside of transactions, all kinds of changes to a
  // file as a whole, and a transaction that the copy of the log finds unfinished.
  void work() {
    EXPECT_EQ(::islogopen("log"), 0);
    ::issusplog();
    build("plain", -1);
    EXPECT_EQ(::issetunique(build("stock", 0), 10), 0);
    ::iscleanup();
    keep_copy();
    ::isresumlog();
    EXPECT_EQ(open("stock"), 0);
    EXPECT_EQ(open("plain", 0), 1);
    ::isbegin();
    write(0, row(1, 7, filler(5), 'A'));
    write(0, row(2, 7));
    ::iscommit();
    ::isbegin();
    rewrite(0, row(2, 8, filler(9), 'B'));
    ::isrollback();
    write(1, row(3, 1));
    std::int32_t id = 0;
    ::isuniqueid(0, &id);
    keydescr key{KF_DUPS | KF_LCOMPRESS, 2, {{4, 4, KT_CHAR}, {0, 4, KT_LONG + KT_DESC}}, 0, 0};
    const int built = ::isbuild("new \x1b", 64, &key, ISINOUT + ISEXCLLOCK);
    keydescr more{0, 1, {{8, 2, KT_INT}}, 0, 0};
    EXPECT_EQ(::isaddindex(built, &more), 0);
    EXPECT_EQ(::isdelindex(built, &more), 0);
    ::isclose(built);
    EXPECT_EQ(::isrename("new \x1b", "newer"), 0);
    EXPECT_EQ(::iserase("newer"), 0);
    ::isbegin();
    erase(0, 1);
    write(1, row(4, 1));
    std::filesystem::copy("log", "at_kill");
    ::iscommit();
    ::iscleanup();
    ::islogclose();
  }

  // The folder of the copy, with `log` beside it.
  [[nodiscard]] std::string restored() {
    restore_copy();
    std::filesystem::remove_all("site");
    std::filesystem::create_directory("site");
    for (const char* name : {"plain.dat", "plain.idx", "stock.dat", "stock.idx"}) {
      std::filesystem::rename(name, "site/" + std::string{name});
    }
    return "site";
  }

  static void cut(const std::string& path, std::uintmax_t size) {
    std::filesystem::resize_file(path, size);
  }
};
INSTANTIATE_TEST_SUITE_P(Formats, Recover, ::testing::Bool(),
                         [](const auto& format) { return format.param ? "Varying" : "Fixed"; });

TEST_P(Recover, ListsALogInWords) {
  work();
  const Image before = read_file("at_kill");
  ::chmod("at_kill", 0444);
  const RunResult run = isrecover({"-n", "-x", "at_kill"});
  EXPECT_EQ(run.status, kAll) << run.err;
  EXPECT_EQ(read_file("at_kill"), before);
  const std::string process = std::to_string(::getpid());
  const std::string second = varying() ? ", 16 to 25 bytes" : ", 16 to 16 bytes";
  expect_in_order(run.out,
                  {"         4  begin",
                   process,
                   "Z  no previous\n",
                   "open file",
                   "Z  open 0 \"stock\", ",
                   varying() ? "variable length" : "fixed length",
                   "insert",
                   "open 0 \"stock\", record 1, ",
                   "; previous 4+26\n",
                   "    new\n",
                   "    0000  30 30 30 30 30 30 30 31 30 30 30 30 30 30 30 37  0000000100000007\n",
                   "insert",
                   "record 2, 16 bytes; previous ",
                   "commit",
                   "begin",
                   "rewrite",
                   "record 2" + second,
                   "    old\n",
                   "    new\n",
                   "rollback",
                   "open 1 \"plain\"",
                   "insert",
                   "open 1 \"plain\", record 1, 16 bytes; unlinked",
                   "unique id",
                   "open 0 \"stock\", id 10",
                   "build file",
                   "\"new \\x1B\", mode 0x802",
                   "records of 64 bytes",
                   "key (4,4,char) (0,4,long,descending) duplicates",
                   "compressed-leading",
                   "add index",
                   "key (8,2,int)\n",
                   "drop index",
                   "rename file",
                   "\"new \\x1B\" to \"newer\"",
                   "erase file",
                   "\"newer\"",
                   "delete",
                   "open 0 \"stock\", record 1, ",
                   "\nrecords ",
                   ": 3 begin, 1 commit, ",
                   "transactions: 1 committed, 1 rolled back, 1 unfinished\n",
                   "  unfinished: process ",
                   ", 3 records\n",
                   "  committed: process " + process + ", offset 4 to ",
                   ", 5 records\n",
                   "  rolled back: process "});
  EXPECT_FALSE(has(run.out, "damage"));
  EXPECT_FALSE(has(isrecover({"-n", "at_kill"}).out, "0000  30"));
}

TEST_P(Recover, AppliesALogToRestoredFiles) {
  work();
  const std::string site = restored();
  const RunResult run = isrecover({"-v", "-C", site, "at_kill"});
  EXPECT_EQ(run.status, kAll) << run.out << run.err;
  expect_in_order(run.out, {"applied   insert", "open 0 \"stock\", record 1", "\napplied   ",
                            "3 insert", "left out  0\n", "file \"plain\"\n", "file \"stock\"\n",
                            "transactions without an end, not applied: 1\n", "  process ",
                            "not part of them, not applied either: 1\n  insert"});
  EXPECT_EQ(faults("site/plain") + faults("site/stock"), "");
  const int stock = open("site/stock", 0);
  EXPECT_EQ(rows(stock), (Rows{row(1, 7, filler(5), 'A'), row(2, 7)}));
  ::iscleanup();
}

// The report does not go into a file that has taken the place of standard output.
TEST_P(Recover, NeedsNoStandardDescriptors) {
  work();
  for (const std::string closed : {" >&-", " <&- >&-", " <&- >&- 2>&-"}) {
    SCOPED_TRACE(closed);
    const std::string site = restored();
    const Image log = read_file("at_kill");
    const RunResult run = run_program(
        {.words = {"/bin/sh", "-c", ISRECOVER_PROGRAM " -C " + site + " at_kill" + closed}});
    EXPECT_EQ(run.status, kAll);
    EXPECT_EQ(read_file("at_kill"), log);
    EXPECT_EQ(faults("site/plain") + faults("site/stock"), "");
    EXPECT_EQ(rows(open("site/stock", 0)), (Rows{row(1, 7, filler(5), 'A'), row(2, 7)}));
    ::iscleanup();
  }
}

TEST_P(Recover, ListsWhatIsUnfinishedBeforeAllElse) {
  Image log = {0xFB, 0x85, 0x9E, 0x78};
  const auto mark = [&](char letter, Byte process) {
    const Image record = {0, 26, static_cast<Byte>(letter), 'W', 0, 0, 0, process};
    log.insert(log.end(), record.begin(), record.end());
    log.resize(log.size() + 16);
    log.insert(log.end(), {0, 26});
  };
  mark('B', 9);
  for (int i = 0; i < 10100; ++i) {
    mark('B', 7);
    mark(i % 2 == 0 ? 'C' : 'R', 7);
  }
  write_file("long", log);
  const std::string out = isrecover({"-n", "long"}).out;
  expect_in_order(out, {"5050 committed, 5050 rolled back, 1 unfinished\n",
                        "  unfinished: process 9, offset 4, 1 records\n",
                        "  committed: process 7, offset 30 to 56, 2 records\n"});
}

// Without the pair "plain" a recovery stops; told to keep going it leaves that pair's records out.
TEST_P(Recover, LeavesOutOnRequestWhatItCannotApply) {
  work();
  std::string site = restored();
  std::filesystem::remove("site/plain.idx");
  const RunResult stopped = isrecover({"-C", site, "log"});
  EXPECT_EQ(stopped.status, kFailed);
  expect_in_order(stopped.err, {"recovery stopped: ", "\"plain\"", "\"file open redo problem\", 2 ",
                                "restore the files"});
  EXPECT_FALSE(std::filesystem::exists("site/isrecvr_err.log"));

  site = restored();
  std::filesystem::remove("site/plain.idx");
  const RunResult run = isrecover({"-k", "-v", "-C", site, "log"});
  EXPECT_EQ(run.status, kSome) << run.err;
  expect_in_order(run.out, {"left out  insert", "\"insert record skipped (filename = plain)\"\n",
                            "file \"plain\"\n  left out  ", "file \"stock\"\n  applied   ",
                            "isrecvr_err.log is in \"site\": it holds what was left out\n"});
  EXPECT_EQ(isrecover({"-n", "site/isrecvr_err.log"}).status, kAll);
  expect_in_order(isrecover({"-n", "isrecvr_err.log"}, "site").out,
                  {"open file", "\"plain\"", "message", "\"file open redo problem\", iserrno 2 ",
                   ", errno ", ", iserrio 0x00, status \"9035", "insert", "message",
                   "iserrno 0, errno 0, ", "close file", "message"});
  const RunResult again = isrecover({"-k", "-C", site, "log"});
  EXPECT_EQ(again.status, kFailed);
  EXPECT_TRUE(has(again.err, "isrecvr_err.log of an earlier recovery is in \"site\""));
}

TEST_P(Recover, AppliesRecordsOfUnknownWritersOnRequest) {
  work();
  Image log = read_file("log");
  const auto first = static_cast<std::size_t>(get2(&log[4]));
  log.erase(log.begin() + 4, log.begin() + 4 + static_cast<std::ptrdiff_t>(first));
  const auto opened = static_cast<std::size_t>(get2(&log[4]));
  log.erase(log.begin() + 4, log.begin() + 4 + static_cast<std::ptrdiff_t>(opened));
  write_file("headless", log);
  EXPECT_EQ(isrecover({"-C", restored(), "headless"}).status, kFailed);
  EXPECT_EQ(isrecover({"-a", "-k", "-C", restored(), "headless"}).status, kSome);
}

// Any byte of a log may be wrong, and it may end anywhere: the program ends by itself, and never
// says that all is well with a record that was cut.
TEST_P(Recover, EndsByItselfWhateverTheLogHolds) {
  work();
  const Image whole = read_file("at_kill");
  std::vector<std::size_t> ends = {4};
  while (ends.back() + 2 <= whole.size()) {
    ends.push_back(ends.back() + static_cast<std::size_t>(get2(&whole[ends.back()])));
  }
  // Each run costs a process: a cut at every byte of the first records, every flip there too.
  const std::size_t most = std::min<std::size_t>(ends[4], whole.size());
  for (std::size_t size = 1; size < most; ++size) {
    write_file("damaged", Image(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    const RunResult run = isrecover({"-n", "-x", "damaged"});
    const bool at_end = std::ranges::count(ends, size) != 0;
    ASSERT_EQ(run.status, size < 4 ? kFailed : at_end ? kAll : kSome) << size << run.out;
    ASSERT_EQ(has(run.out, "ends with a part of a record"), size > 4 && !at_end) << size;
  }
  for (std::size_t at = 4; at < whole.size(); at += at < most ? 2 : 11) {
    Image log = whole;
    log[at] = static_cast<Byte>(log[at] ^ (at % 3 == 0 ? 0xFF : 1 << (at % 8)));
    write_file("damaged", log);
    const RunResult run = isrecover({"-n", "-x", "damaged"});
    ASSERT_NE(run.status, kFailed) << at << run.out << run.err;
    if (at % 5 != 0) continue;
    isrecover({"-k", "-a", "-v", "-C", restored(), "damaged"});
  }
}

TEST_P(Recover, SaysWhatIsWrongWithALog) {
  work();
  const Image whole = read_file("at_kill");
  const auto second = 4 + static_cast<std::size_t>(get2(&whole[4]));
  const struct {
    std::size_t at;
    Image bytes;
    const char* said;
  } kDamages[] = {
      {second, {0, 25}, "damaged at offset 30: a record cannot be 25 bytes long"},
      {second + 2, {'?', 27}, "damaged at offset 30: no record has this type"},
      {second - 2, {0, 99}, "damaged at offset 4: the record is 26 bytes long at its start and 99"},
      {18,
       {0, 0, 0, 0, 0, 0, 0, 4, 0, 26},
       "damaged at offset 4: the previous record does not lie before"},
      {second + 28,
       {'a', 'a', 'a', 'a', 'a', 'a'},
       "damaged at offset 30: what the record holds does not fit its type"}};
  for (const auto& damage : kDamages) {
    Image log = whole;
    std::ranges::copy(damage.bytes, log.begin() + static_cast<std::ptrdiff_t>(damage.at));
    write_file("damaged", log);
    const RunResult run = isrecover({"-n", "damaged"});
    EXPECT_EQ(run.status, kSome);
    EXPECT_TRUE(has(run.out, damage.said)) << damage.said << run.out;
  }
}

TEST_P(Recover, RefusesWhatIsNoLogOrNoOption) {
  work();
  write_file("empty", {});
  write_file("other", Image(100, 7));
  EXPECT_EQ(isrecover({"-n", "empty"}).status, kAll);
  EXPECT_EQ(isrecover({"empty"}).status, kAll);
  EXPECT_EQ(read_file("empty").size(), 0u);
  ASSERT_EQ(::mkfifo("pipe", 0600), 0);
  for (const Words& words : {Words{"-n", "other"},
                             {"other"},
                             {"-n", "absent"},
                             {"absent"},
                             {"pipe"},
                             {"-n", "."},
                             {"-n", "pipe"},
                             {},
                             {"-n"},
                             {"log", "log"},
                             {"-C", "absent", "log"},
                             {"-z", "log"},
                             {"--audit", "absent"},
                             {"--audit"},
                             {"--audit", "stock"},
                             {"--audit", "-n", "stock"},
                             {"--audit", "-l", "0", "log"},
                             {"--audit", "-l", "32512", "log"},
                             {"--audit", "-l", "9x", "log"},
                             {"-l", "9", "log"}}) {
    const RunResult run = isrecover(words);
    EXPECT_EQ(run.status, kFailed) << ::testing::PrintToString(words) << run.out;
    EXPECT_NE(run.err, "");
  }
  EXPECT_TRUE(isrecover({"--help"}).out.starts_with("usage: isrecover "));
  EXPECT_TRUE(isrecover({"--version"}).out.starts_with("isrecover "));
}

// Four entries, one of each kind.
class RecoverAudit : public Recover {
 protected:
  void make_trail() {
    build("stock", -1);
    const int isfd = ::isopen("stock", ISINOUT + ISMANULOCK + format());
    char name[128] = "trail";
    ASSERT_EQ(::isaudit(isfd, name, AUDSETNAME), 0);
    ASSERT_EQ(::isaudit(isfd, name, AUDSTART), 0);
    write(isfd, row(1, 7, filler(3), 'A'));
    rewrite(isfd, row(1, 8));
    erase(isfd, 1);
    ::iscleanup();
  }
};
INSTANTIATE_TEST_SUITE_P(Formats, RecoverAudit, ::testing::Bool(),
                         [](const auto& format) { return format.param ? "Varying" : "Fixed"; });

TEST_P(RecoverAudit, ListsTheTrailOfAPairAndOneWithoutItsPair) {
  make_trail();
  const RunResult run = isrecover({"--audit", "-x", "stock"});
  EXPECT_EQ(run.status, kAll) << run.err;
  const std::string process = " " + std::to_string(::getpid() & 0xFFFF) + " ";
  expect_in_order(run.out, {"         0  added ", process, "Z  1, ", varying() ? "19" : "16",
                            " bytes\n", "    0000  30 30", "before", "after ", "1, 16 bytes\n",
                            "deleted", "\nentries 1 added, 1 deleted, 1 before, 1 after\n"});
  EXPECT_EQ(isrecover({"--audit", "-x", "stock.idx", "trail"}).out, run.out);
  const Words by_hand = {"--audit", "-x", "--length", varying() ? "variable" : "16", "trail"};
  EXPECT_EQ(isrecover(by_hand).out, run.out);
  std::filesystem::create_directory("sub");
  EXPECT_EQ(isrecover({"--audit", "-x", "-C", "..", "../stock"}, "sub").out, run.out);
}

TEST_P(RecoverAudit, GoesOnBehindDamage) {
  make_trail();
  const Image whole = read_file("trail");
  for (std::size_t size = 1; size < whole.size(); ++size) {
    write_file("trail", Image(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    isrecover({"--audit", "stock"});
  }
  for (std::size_t at = 0; at < whole.size(); at += 3) {
    Image trail = whole;
    trail[at] ^= 0xFF;
    write_file("trail", trail);
    isrecover({"--audit", "-x", "stock"});
  }
  Image trail = whole;
  trail[1] = 'd';
  write_file("trail", trail);
  const RunResult run = isrecover({"--audit", "stock"});
  EXPECT_EQ(run.status, kSome);
  const std::string skipped = varying() ? "36" : "31";
  expect_in_order(run.out, {"damaged at offset 0: no operation has these letters; " + skipped +
                                " bytes passed by\n",
                            "before", "after", "deleted", "damages 1\n"});
  trail = whole;
  trail.pop_back();
  write_file("trail", trail);
  expect_in_order(isrecover({"--audit", "stock"}).out,
                  {"after", "the trail ends with a part of an entry"});
}

}  // namespace
}  // namespace testing_support
