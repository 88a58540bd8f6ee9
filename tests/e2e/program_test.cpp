// The program as its operator meets it: options, dialogue, locks.
#include "tests/e2e/program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/pair_walk.h"

namespace testing_support {
namespace {

using Program = ProgramTest;

constexpr char kUsage[] =
    "usage: kestro -ilnyqs zentrafiles ...\n"
    "      -i   check index file only\n"
    "      -l   list entries in b-trees\n"
    "      -n   answer no to all questions\n"
    "      -y   answer yes to all questions\n"
    "      -q   no program header\n"
    "      -s   resize the index file node size\n\n";

TEST_F(Program, TellsItsVersionAlone) {
  const RunResult version = kestro({"-V"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(std::count(version.out.begin(), version.out.end(), '\n'), 1);
  const RunResult with_file = kestro({"-V", "pair"});
  EXPECT_EQ(with_file.status, 1);
  EXPECT_EQ(with_file.out, "ERROR: illegal option -V\n");
}

TEST_F(Program, ShowsItsUseWithoutAFile) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"-q"}, std::vector<std::string>{"-qn"}}) {
    const RunResult run = kestro(words);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, kUsage);
  }
  const RunResult bare = kestro({"-"});
  EXPECT_EQ(bare.status, 1);
  EXPECT_EQ(bare.out.find("\nKESTRO  Zentra B-tree Checker version "), 0u);
  EXPECT_TRUE(bare.out.ends_with(kUsage));
}

TEST_F(Program, RefusesWhatItDoesNotKnow) {
  EXPECT_EQ(kestro({"-nx", "pair"}).out, "ERROR: illegal option -x\n");
  const RunResult locale = kestro({"-nq", "pair"}, "", {"CLIENT_LOCALE=no_such.place"});
  EXPECT_EQ(locale.status, 255);
  EXPECT_EQ(locale.err.find("ulx function initulx failed, error "), 0u);
}

TEST_F(Program, TakesEitherFileOfThePairAndGoesOnBehindAMissingOne) {
  build_pair(mixed_spec(256, 60, 2), folder_ / "pair");
  const auto body = [](const std::string& out) { return out.substr(out.find("Checking")); };
  const std::string by_base = kestro({"-nq", "pair"}).out;
  EXPECT_EQ(body(kestro({"-nq", "pair.idx"}).out), body(by_base));
  EXPECT_EQ(body(kestro({"-nq", "pair.dat"}).out), body(by_base));
  const RunResult both = kestro({"-nq", "absent", "pair"});
  EXPECT_EQ(both.status, 0);
  EXPECT_EQ(both.out.find("\nZentra File: absent\n\n\nERROR: cannot open Zentra file\n"), 0u);
  // The records that are absent behind the missing file are not taken for bad ones.
  EXPECT_EQ(body(both.out), body(by_base));
}

TEST_F(Program, RepairsWhatWasAgreedToAndNoMore) {
  const BuiltPair built = damaged_pair();
  const Image before = read_file(folder_ / "pair.idx");

  // Everything declined: by word, by the end of the input, by -n over -y.
  const RunResult declined = kestro({"-q", "pair"}, "no\nmaybe\nN\nno\nno\n");
  EXPECT_NE(declined.out.find("Answer yes or no ? "), std::string::npos);
  EXPECT_EQ(read_file(folder_ / "pair.idx"), before);
  kestro({"-q", "pair"});
  EXPECT_EQ(read_file(folder_ / "pair.idx"), before);
  EXPECT_NE(kestro({"-qny", "pair"}).out.find("Delete index ? no\n\n"), std::string::npos);
  EXPECT_EQ(read_file(folder_ / "pair.idx"), before);

  // Only the free lists: the index stays as it is.
  const RunResult lists = kestro({"-q", "pair"}, "n\nYES\ny\n");
  EXPECT_NE(lists.out.find("Recreating data record free list."), std::string::npos);
  EXPECT_EQ(lists.out.find("Recreating index 1."), std::string::npos);
  const RunResult after_lists = kestro({"-nq", "pair"});
  EXPECT_EQ(after_lists.out.find("Fix "), std::string::npos);
  EXPECT_NE(after_lists.out.find("ERROR: 1 missing data record pointer(s)\nDelete index ? no"),
            std::string::npos);

  // Deleted, not remade: the description goes, the other indexes move up.
  const RunResult deleted = kestro({"-q", "pair"}, "yes\nno\nyes\n");
  EXPECT_NE(deleted.out.find("Deleting index 1."), std::string::npos);
  EXPECT_EQ(walk_pair(built.base).problems, std::vector<std::string>{});
  const std::string after = kestro({"-nq", "pair"}).out;
  EXPECT_NE(after.find("Index 1 = duplicates  (12,4,2) "), std::string::npos);
  EXPECT_EQ(after.find("Index 5"), std::string::npos);
  EXPECT_EQ(after.find("ERROR"), std::string::npos);
}

// The list of free nodes names a leaf of a sound index and stays as it is: no repair draws on it.
TEST_F(Program, TakesNothingFromADeclinedList) {
  const BuiltPair built = build_pair(fault_spec(false), folder_ / "pair");
  PairEditor editor(built);
  Byte* head = editor.node(built.free_node_list.front());
  put4(head + get2(head) - 4, built.indexes[0].leaves[1]);
  put2(editor.node(built.indexes[1].leaves.front()), 2);
  editor.save();
  const RunResult run = kestro({"-q", "pair"}, "yes\nyes\nno\n");
  EXPECT_NE(run.out.find("Recreating index 2.\n\nZentra ERROR 105: Corrupted isam file\n"),
            std::string::npos)
      << run.out;
  const std::string after = kestro({"-nq", "pair"}).out;
  const std::string first = after.substr(0, after.find("Index 2 = "));
  EXPECT_EQ(first.find("ERROR"), std::string::npos) << after;
  kestro({"-yq", "pair"});
  EXPECT_EQ(walk_pair(built.base).problems, std::vector<std::string>{});
}

TEST_F(Program, LeavesARepeatedKeyOutAndSaysSo) {
  const BuiltPair built = damaged_pair();
  PairEditor editor(built);
  for (const int twin : {9, 23}) std::copy_n(editor.slot(8), 12, editor.slot(twin));
  editor.save();
  const std::string out = kestro({"-yq", "pair"}).out;
  EXPECT_NE(out.find("Recreating index 1.\n\nERROR: duplicate key value, record 9\n\n"
                     "ERROR: duplicate key value, record 23\n"),
            std::string::npos)
      << out;
}

TEST_F(Program, ChecksTheIndexAloneWithI) {
  const BuiltPair built = build_pair(fault_spec(false), folder_ / "pair");
  PairEditor editor(built);
  std::fill(editor.data.begin(), editor.data.end(), Byte{0});
  editor.save();
  const std::string out = kestro({"-inq", "pair"}).out;
  EXPECT_EQ(out.find("ERROR"), std::string::npos) << out;
  EXPECT_EQ(out.find("Checking data file records."), std::string::npos);
  build_pair(fault_spec(true), folder_ / "varying");
  EXPECT_NE(kestro({"-inq", "varying"})
                .out.find("File has variable length records; must check data file.\n"
                          "Checking data file records.\n"),
            std::string::npos);
}

TEST_F(Program, IsRefusedAPairInUse) {
  build_pair(mixed_spec(512, 40, 2), folder_ / "pair");
  const Image before = read_file(folder_ / "pair.idx");
  const int fd = ::open((folder_ / "pair.idx").c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0x7FFFFFFF;
  lock.l_len = 1;
  ASSERT_EQ(::fcntl(fd, F_SETLK, &lock), 0);
  for (const char* options : {"-nq", "-yq", "-sq"}) {
    const RunResult run = kestro({options, "pair"});
    EXPECT_NE(run.out.find("\nZentra ERROR 113: File is in use\n"), std::string::npos);
    EXPECT_EQ(run.out.find("Checking"), std::string::npos);
  }
  ::close(fd);
  EXPECT_EQ(read_file(folder_ / "pair.idx"), before);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "pair.IDX"));
  EXPECT_EQ(kestro({"-nq", "pair"}).out.find("113"), std::string::npos);
}

TEST_F(Program, ChangesTheNodeSize) {
  const BuiltPair built = build_pair(mixed_spec(256, 150, 4), folder_ / "pair");
  const Image old_index = read_file(folder_ / "pair.idx");
  EXPECT_EQ(kestro({"-nsq", "pair"}).out.find("ERROR"), std::string::npos);
  EXPECT_EQ(read_file(folder_ / "pair.idx"), old_index);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "pair.IDX"));

  const RunResult run = kestro({"-sq", "pair"});
  EXPECT_NE(run.out.find("Old index node size = 256\nKey node size = "), std::string::npos);
  EXPECT_EQ(run.out.find("reading index file"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("Zentra ERROR"), std::string::npos) << run.out;
  EXPECT_EQ(read_file(folder_ / "pair.IDX"), old_index);
  const std::string after = kestro({"-nq", "pair"}).out;
  EXPECT_NE(after.find("Index file node size = 1024\n"), std::string::npos);
  EXPECT_EQ(after.find("ERROR"), std::string::npos) << run.out << after;
  EXPECT_EQ(walk_pair(built.base).problems, std::vector<std::string>{});

  EXPECT_NE(kestro({"-sq", "pair"}).out.find("Error in linking .idx to .IDX\n"), std::string::npos);
  build_pair(fault_spec(true), folder_ / "varying");
  EXPECT_NE(
      kestro({"-sq", "varying"}).out.find("File has variable length records; cannot resize.\n"),
      std::string::npos);
}

// Every shape that can be built is sound, silent, and listed without a finding.
TEST_F(Program, IsSilentAboutSoundPairs) {
  for (const int node_size : {128, 131, 256, 512, 1000, 1024, 1025}) {
    for (const std::uint32_t seed : {1u, 2u, 5u, 6u}) {
      for (const bool varying : {false, true}) {
        PairSpec spec = varying ? varying_spec(node_size, 90, seed == 1 ? 200 : 3000, seed)
                                : mixed_spec(node_size, 150, seed);
        spec.free_nodes = static_cast<int>(seed) * 9;
        spec.audit_node = seed == 2;
        spec.records_behind = seed == 5 ? 4 : 0;
        spec.nodes_behind = seed == 6 ? 3 : 0;
        const BuiltPair built = build_pair(spec, folder_ / "pair");
        ASSERT_EQ(walk_pair(built.base).problems, std::vector<std::string>{});
        for (const char* options : {"-nq", "-nlq", "-niq"}) {
          const std::string out = kestro({options, "pair"}).out;
          ASSERT_EQ(out.find("ERROR"), std::string::npos) << node_size << " " << seed << out;
          ASSERT_NE(out.find("data record(s) used"), std::string::npos);
        }
      }
    }
  }
}

}  // namespace
}  // namespace testing_support
