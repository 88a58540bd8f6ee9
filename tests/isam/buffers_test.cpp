#include "isam/pool/buffers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/pool/pagetable.h"
#include "tests/isam/test_pair.h"
#include "tests/support/between.h"
#include "tests/support/run_program.h"

namespace isam {
namespace {

using testing_support::SystemCall;
using testing_support::TestPair;

constexpr char kFatal[] = "Fatal system error: ";

// The pool is made on first use and stays: every case that counts buffers has its own process,
// which leaves its files in a folder of this one.
void work_with(const char* buffers, const testing_support::TempFolder& folder, void (*work)()) {
  ::setenv("TMPDIR", folder.path().c_str(), 1);
  ::setenv("ISAMBUFS", buffers, 1);
  const TestPair pair;
  work();
  std::exit(testing::Test::HasFailure() ? 1 : 0);
}

void in_own_process(const char* buffers, void (*work)()) {
  const testing_support::TempFolder folder;
  EXPECT_EXIT(work_with(buffers, folder, work), testing::ExitedWithCode(0), "");
}

void dies_with(const char* buffers, const char* message, void (*work)()) {
  const testing_support::TempFolder folder;
  EXPECT_DEATH(work_with(buffers, folder, work), std::string(kFatal) + message);
}

int writes = 0;
int count_writes(const SystemCall& call) {
  if (call.kind == SystemCall::kWrite) ++writes;
  return 0;
}

void hold(int count) {
  std::vector<PageHold> held;
  for (int node = 10; node < 10 + count; ++node) held.push_back(bfgetclr(node));
}

TEST(BuffersDeathTest, TheEnvironmentSetsTheirNumber) {
  for (const char* refused : {"3", "32767", "-5", "many", "16x"}) {
    in_own_process(refused, [] { hold(16); });
    dies_with(refused, "no more buffers", [] { hold(17); });
  }
  in_own_process("4", [] { hold(4); });
  dies_with("4", "no more buffers", [] { hold(5); });
  in_own_process("32766", [] { hold(1000); });
}

// More files than have arrays, numbers within and beyond them, in a pool that is large enough for
// arrays and in one that is not.
TEST(PageTable, FindsWhatItHas) {
  for (const std::size_t count : {std::size_t{500}, std::size_t{5000}}) {
    std::vector<Buffer> buffers(count);
    std::vector<OpenPair> files(20);
    PageTable table;
    ASSERT_TRUE(table.reserve(buffers.data(), count));
    std::map<std::pair<const OpenPair*, std::int32_t>, Buffer*> there;
    std::vector<Buffer*> unused;
    for (Buffer& buffer : buffers) unused.push_back(&buffer);
    std::mt19937 random(3);
    for (int i = 0; i < 40000; ++i) {
      OpenPair* const file = &files[random() % files.size()];
      constexpr std::array<std::int32_t, 4> kFirsts = {1, 999'900, INT32_MIN, INT32_MAX - 400};
      const std::int32_t block =
          kFirsts[random() % kFirsts.size()] + static_cast<std::int32_t>(random() % 200);
      const auto known = there.find({file, block});
      ASSERT_EQ(table.find(block, file), known == there.end() ? nullptr : known->second);
      if (known != there.end()) {
        table.erase(known->second);
        unused.push_back(known->second);
        there.erase(known);
      } else if (!unused.empty()) {
        Buffer* const buffer = unused.back();
        unused.pop_back();
        buffer->block = block;
        buffer->file = file;
        table.insert(buffer);
        there[{file, block}] = buffer;
      }
    }
  }
}

TEST(BuffersDeathTest, MisuseIsFatal) {
  dies_with("16", "buffer not free", [] {
    const PageHold first = bfread(2);
    const PageHold second = bfread(2);
  });
  dies_with("16", "ignoring modified buffer", [] {
    bfgetclr(7).release();
    bfignor(*filep);
  });
}

TEST(BuffersDeathTest, CleanPagesGoBeforeThePoolGrows) {
  in_own_process("4", [] {
    testing_support::stand_between(count_writes);
    ASSERT_EQ(::ftruncate(filep->index.fd, 102'400), 0);
    // Whichever kind is changed and whichever clean, three buffers serve the rest.
    for (const bool changes_node : {false, true}) {
      (changes_node ? bfgetclr(20) : bfread_data(20)).modified();
      std::set<const Byte*> pages;
      for (int i = 0; i < 6000; ++i) {
        const PageHold page = i % 2000 < 1000 ? bfread(21 + i % 70) : bfread_data(21 + i);
        ASSERT_TRUE(page);
        pages.insert(page.data());
      }
      EXPECT_LE(pages.size(), 3U);
      EXPECT_EQ(bfdiscard(*filep), 0);
      EXPECT_EQ(writes, 0);
    }
    // What was out of the order meanwhile is in it again.
    std::vector<PageHold> held;
    for (int block = 1; block <= 4; ++block) held.push_back(bfread_data(block));
  });
}

// A page that a call of others' file had no room for in the pool.
TEST(BuffersDeathTest, AFailedWriteBeforeTheCommitFailsIt) {
  in_own_process("4", [] {
    static bool fails = true;
    testing_support::stand_between([](const SystemCall& call) {
      return call.kind == SystemCall::kWrite && std::exchange(fails, false) ? EIO : 0;
    });
    ASSERT_EQ(::ftruncate(filep->index.fd, 3'072'000), 0);
    filep->call.nodes_before = 3000;
    for (int node = 20; fails; ++node) bfgetclr(node).release();
    EXPECT_EQ(iserrno, 0);
    EXPECT_EQ(bfdiscard(*filep), -1);
    EXPECT_EQ(bfcommit(*filep), -1);
    EXPECT_EQ(iserrno, EIO);
    EXPECT_EQ(bfpend(*filep), 0);
  });
}

// What the system is made to say of its memory.
void tell_memory(int available) {
  static std::string file;
  file = std::string(std::getenv("TMPDIR")) + "/meminfo";
  std::ofstream{file} << "MemTotal: 8000000 kB\nMemAvailable: " << available << " kB\n";
  common::system_call_table.open = [](const char* path, int flags, mode_t permissions) {
    const bool asks = std::string_view(path) == "/proc/meminfo";
    return ::open(asks ? file.c_str() : path, flags, permissions);
  };
}

constexpr int kFirstNode = 20;
constexpr int kNodes = 12'000;

void change_nodes() {
  for (int node = kFirstNode; node < kFirstNode + kNodes; ++node) {
    PageHold page = bfgetclr(node);
    common::stlong(node, page.data() + 100);
    page.set_frame(kUsedBytes, 0, 0);
  }
}

std::size_t buffers_that_serve_the_nodes() {
  std::set<const Byte*> pages;
  for (int node = kFirstNode; node < kFirstNode + kNodes; ++node) {
    const PageHold page = bfread(node);
    EXPECT_TRUE(page && common::ldlong(page.data() + 100) == node) << node;
    if (page) pages.insert(page.data());
  }
  return pages.size();
}

TEST(BuffersDeathTest, ALargePoolTakesMoreForChangedNodesAndGivesItBack) {
  in_own_process("4096", [] {
    filep->locks.exclusives = 1;
    filep->mark.state = MarkState::kUnneeded;
    testing_support::stand_between(count_writes);
    ASSERT_EQ(::ftruncate(filep->index.fd, 1024 * (kFirstNode + kNodes)), 0);
    tell_memory(4'000'000);
    change_nodes();
    EXPECT_EQ(writes, 0);
    bfease(true);  // none can go yet
    EXPECT_EQ(bfpend(*filep), kNodes);
    EXPECT_EQ(bfflush(*filep), kNodes);
    EXPECT_EQ(buffers_that_serve_the_nodes(), kNodes);
    bfease(true);
    EXPECT_EQ(buffers_that_serve_the_nodes(), 4096);
    change_nodes();
    EXPECT_EQ(bfpend(*filep), kNodes);
    for (int i = 0; i < 3000; ++i) bfease(false);
    EXPECT_EQ(bfpend(*filep), kNodes);  // there is memory enough
    tell_memory(400'000);
    for (int i = 0; i < 3000; ++i) bfease(false);
    EXPECT_LE(bfpend(*filep), 4096);
    change_nodes();
    EXPECT_LE(bfpend(*filep), 4096);
    EXPECT_EQ(buffers_that_serve_the_nodes(), 4096);
    bfflush(*filep);
    filep->locks.exclusives = 0;
  });
}

// However long ago the nodes were changed.
TEST(BuffersDeathTest, ALargePoolDoesNotGrowForDataBlocks) {
  in_own_process("4096", [] {
    filep->locks.exclusives = 1;
    filep->mark.state = MarkState::kUnneeded;
    tell_memory(4'000'000);
    std::set<const Byte*> pages;
    for (int node = kFirstNode; node < kFirstNode + 3000; ++node) {
      pages.insert(bfgetclr(node).data());
    }
    for (int i = 0; i < 300'000; ++i) pages.insert(bfread_data(i % 6000).data());
    EXPECT_LE(pages.size(), 4096U);
    EXPECT_EQ(bfpend(*filep), 3000);
    filep->locks.exclusives = 0;
  });
}

TEST(BuffersDeathTest, DelayedNeighboursAreWrittenInOnePiece) {
  in_own_process("16", [] {
    // Nodes 41 to 44 share a page of the system; 45 stands in the next one.
    for (const int node : {43, 41, 45, 42, 44}) {
      PageHold page = bfgetclr(node);
      page.data()[100] = static_cast<Byte>(node);
      page.set_frame(node, 0, 0);
    }
    testing_support::stand_between(count_writes);
    EXPECT_EQ(bfflush(*filep), 5);
    EXPECT_EQ(writes, 2);
    EXPECT_EQ(bfpend(*filep), 0);
    bfignor(*filep);
    for (int node = 41; node <= 45; ++node) {
      const PageHold page = bfread(node);
      ASSERT_TRUE(page);
      EXPECT_EQ(page.data()[100], node);
      EXPECT_EQ(page.used(), node);
    }
  });
}

}  // namespace
}  // namespace isam
