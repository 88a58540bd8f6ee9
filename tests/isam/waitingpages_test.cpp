// Records that an exclusive open changes wait in pages of the system: what is written when, and
// that nobody sees the difference.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/io.h"
#include "isam.h"
#include "isam/pool/pool.h"
#include "tests/support/between.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

constexpr int kLength = 99;
constexpr int kRecords = 4000;
constexpr int kExclusive = ISINOUT + ISEXCLLOCK;
constexpr int kPages = kRecords * (kLength + 1) / 4096;  // that the file has whole
constexpr auto kMostBytes = static_cast<std::int64_t>(isam::WaitingPages::kMostBytes);

std::string record_of(int id, char filling) {
  std::string record = std::to_string(10'000'000 + id);
  record.resize(kLength, filling);
  return record;
}

// Bytes that this process has mapped.
std::int64_t address_space() {
  std::int64_t pages = 0;
  std::ifstream{"/proc/self/statm"} >> pages;
  return pages * ::sysconf(_SC_PAGESIZE);
}

class WaitingPages : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv("ISAMBUFS", "4096", 1);
    keep_pool();
    build(base_);
    keep_pool();  // it has all records, so that nothing would be read from the file
    isfd_ = ::isopen(base_.c_str(), kExclusive);
    read_to_and_fro();
    writes_ = 0;
    stand_between([this](const SystemCall& call) {
      const bool is_data = call.kind == SystemCall::kWrite && call.name().ends_with(".dat");
      writes_ += is_data ? 1 : 0;
      if (is_data && looks_for_mixed_) mixed_ = std::max(mixed_, mixed_in_file());
      if (call.kind != SystemCall::kWrite) return 0;
      return is_data ? error_ : index_error_;
    });
    common::system_calls().pread = ::pread;  // or no file would be mapped
  }
  void TearDown() override {
    error_ = index_error_ = 0;
    ::iscleanup();
    stand_aside();
    keep_pool();
    ::unsetenv("ISAMBUFS");
  }

  // The next call makes another one. Upper nodes that are kept still refer to the buffers of this.
  static void keep_pool() {
    static std::vector<std::unique_ptr<isam::Pool>> before;
    before.push_back(std::move(isam::the_pool));
  }

  void build(const std::string& base) {
    const int isfd = ::isbuild(base.c_str(), kLength, &key_, kExclusive);
    for (int id = 0; id < kRecords; ++id) ::iswrite(isfd, record_of(id, 'a').data());
    ::isclose(isfd);
  }
  // Opens the pair anew, in another pool.
  void open_with_pool(const char* buffers) {
    ::isclose(isfd_);
    keep_pool();
    ::setenv("ISAMBUFS", buffers, 1);
    isfd_ = ::isopen(base_.c_str(), kExclusive);
  }
  // Another pair like that, open exclusively.
  int open_other() {
    build(other_);
    return ::isopen(other_.c_str(), kExclusive);
  }
  char filling_of(int id) {
    std::string record = record_of(id, ' ');
    return ::isread(isfd_, record.data(), RD_EQUAL) == 0 ? record.back() : '?';
  }
  // As many reads by themselves as it takes until the files are mapped.
  void read_to_and_fro() {
    for (int i = 0; i < 200; ++i) EXPECT_EQ(filling_of(i * 1013 % kRecords), 'a');
  }
  void change(int id, char filling) {
    EXPECT_EQ(::isrewrite(isfd_, record_of(id, filling).data()), 0) << ::iserrno;
  }
  void change_all(char filling) {
    std::vector<int> ids(kRecords);
    std::iota(ids.begin(), ids.end(), 0);
    std::ranges::shuffle(ids, std::mt19937{7});
    for (const int id : ids) change(id, filling);
  }
  // What the file has of a record, whatever waits.
  char filling_in_file(int id) const {
    std::ifstream file{base_ + ".dat", std::ios::binary};
    file.seekg(static_cast<std::streamoff>(id) * (kLength + 1) + kLength - 1);
    return static_cast<char>(file.get());
  }
  int in_file(char filling) const {
    int count = 0;
    for (int id = 0; id < kRecords; ++id) count += filling_in_file(id) == filling ? 1 : 0;
    return count;
  }
  // How many records the file has that are of two changes.
  int mixed_in_file() const {
    std::ifstream file{base_ + ".dat", std::ios::binary};
    std::string slot(static_cast<std::size_t>(length_) + 1, 0);
    int count = 0;
    while (file.read(slot.data(), static_cast<std::streamsize>(slot.size()))) {
      const bool is_there = slot.back() == '\n';
      count += is_there && slot.find_first_not_of(slot[8], 8) < slot.size() - 1 ? 1 : 0;
    }
    return count;
  }
  std::string check() const { return run_program({.words = {KESTRO_PROGRAM, "-nq", base_}}).out; }

  TempFolder folder_;
  std::string base_ = folder_ / "pair";
  std::string other_ = folder_ / "other";
  keydescr key_ = [] {
    keydescr key{};
    key.nparts = 1;
    key.part[0] = {0, 8, KT_CHAR};
    return key;
  }();
  int isfd_ = -1;
  int length_ = kLength;  // of the records in which mixed_in_file() looks
  int writes_ = 0;
  bool looks_for_mixed_ = false;
  int mixed_ = 0;        // the most before a write to a data file
  int error_ = 0;        // of each write to the data file
  int index_error_ = 0;  // ... to the index file
};

TEST_F(WaitingPages, APageIsWrittenOnceForAllThatWasChangedInIt) {
  change_all('b');
  const int written_at_once = writes_;
  EXPECT_LE(written_at_once, kRecords / kPages);  // the end of the file, no whole page
  EXPECT_EQ(::isflush(isfd_), 0);
  EXPECT_LE(writes_ - written_at_once, 2 * kPages);  // and the records between two
  EXPECT_EQ(in_file('b'), kRecords);
}

TEST_F(WaitingPages, WhatWouldGainNothingOrCannotBeMarkedIsWrittenAtOnce) {
  for (const char filling : {'b', 'c'}) {
    change(500, filling);
    EXPECT_NE(filling_in_file(500), filling);
    EXPECT_EQ(::isflush(isfd_), 0);
  }
  change(2000, 'c');  // twice only one change has met in a page
  EXPECT_EQ(filling_in_file(2000), 'c');
  for (int i = 0; i < 50; ++i) change(1000 + i % 2 * 500, static_cast<char>('d' + i % 3));
  EXPECT_EQ(::isflush(isfd_), 0);
  index_error_ = EIO;
  change(3000, 'e');
  EXPECT_EQ(filling_in_file(3000), 'e');
}

TEST_F(WaitingPages, WhatWaitsIsReadByEveryCall) {
  change_all('b');
  std::vector<char> buffer(static_cast<std::size_t>(kLength) * 100);
  std::vector<std::int32_t> numbers(100);
  std::vector<std::int32_t> lengths(100);
  recordset set{100, buffer.data(), buffer.size(), numbers.data(), lengths.data()};
  for (keydescr order : {key_, keydescr{}}) {
    int read = 0;
    ASSERT_EQ(::isstart(isfd_, &order, 0, buffer.data(), RD_FIRST), 0);
    for (int got = 0; (got = ::isreadmany(isfd_, &set, RD_NEXT)) > 0; read += got) {
      for (int i = 0; i < got; ++i)
        EXPECT_EQ(buffer[static_cast<std::size_t>((i + 1) * kLength - 1)], 'b');
    }
    EXPECT_EQ(read, kRecords);
  }
  EXPECT_EQ(filling_of(17), 'b');
  EXPECT_EQ(in_file('b'), kRecords - in_file('a'));
  EXPECT_GT(in_file('a'), kRecords / 2);
}

TEST_F(WaitingPages, TheyAreWrittenWithinASecondWhileCallsGoOn) {
  change_all('b');
  EXPECT_GT(in_file('a'), 0);
  const int other = open_other();
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  std::int32_t id = 0;
  EXPECT_EQ(::iscurruniq(other, &id), 0);  // whatever the pair
  EXPECT_EQ(in_file('b'), kRecords);
}

// Of two pairs one is served at a time.
TEST_F(WaitingPages, AnotherPairLeavesThemAlone) {
  int other = open_other();
  change_all('b');
  std::swap(isfd_, other);
  read_to_and_fro();
  for (int i = 0; i < kRecords / 2; ++i) change(i * 1013 % kRecords, 'c');
  std::swap(isfd_, other);
  EXPECT_EQ(::isclose(other), 0);
  EXPECT_EQ(filling_of(17), 'b');
  EXPECT_EQ(::isflush(isfd_), 0);
  EXPECT_EQ(in_file('b'), kRecords);
  base_ = other_;
  EXPECT_EQ(in_file('c'), kRecords / 2);
  EXPECT_EQ(in_file('b'), 0);
}

TEST_F(WaitingPages, ASmallPoolHasNone) {
  open_with_pool("600");
  read_to_and_fro();
  for (int id = 50; id < kRecords; id += 100) change(id, 'b');
  EXPECT_EQ(in_file('b'), kRecords / 100);
}

// A record reaches beyond its page, and both do not always go in one piece.
TEST_F(WaitingPages, AtNoMomentTheFileHasARecordInPart) {
  change_all('b');
  looks_for_mixed_ = true;
  EXPECT_EQ(::isflush(isfd_), 0);
  looks_for_mixed_ = false;
  EXPECT_EQ(mixed_, 0);
  EXPECT_EQ(in_file('b'), kRecords);
}

// The same of blocks that leave the pool one by one: records reach over their ends, have many of
// them, and wait with their other end in a page of the system or in a block that is held.
TEST_F(WaitingPages, NorByBlocksThatLeaveThePool) {
  struct Case {
    const char* buffers;
    int length;
  };
  for (const Case& with : {Case{"64", 99}, {"127", 128}, {"16", 1500}, {"4096", 1024}}) {
    SCOPED_TRACE(with.length);
    length_ = with.length;
    open_with_pool(with.buffers);
    const int isfd = ::isbuild((other_ + with.buffers).c_str(), length_, &key_, kExclusive);
    base_ = other_ + with.buffers;
    looks_for_mixed_ = true;
    std::mt19937 random{7};
    int records = 0;
    for (int i = 0; i < 1500; ++i) {
      const bool is_new = records < 20 || random() % 3 == 0;
      const int near = records - 1 - static_cast<int>(random() % 20);
      const int any = static_cast<int>(random()) & INT_MAX;
      const int id = is_new ? records++ : random() % 2 == 0 ? near : any % records;
      std::string record = record_of(id, "abcdefgh"[random() % 8]);
      record.resize(static_cast<std::size_t>(length_), record.back());
      EXPECT_EQ(is_new ? ::iswrite(isfd, record.data()) : ::isrewrite(isfd, record.data()), 0);
    }
    EXPECT_EQ(::isclose(isfd), 0);
    looks_for_mixed_ = false;
    EXPECT_EQ(std::exchange(mixed_, 0), 0);
  }
}

// What was appended to a page's last block, and freed and used again, goes the pool's way or waits:
// neither undoes the other.
TEST_F(WaitingPages, BlocksOfThePoolAndPagesThatWaitAgree) {
  change_all('b');
  for (int id = kRecords; id < kRecords + 50; ++id) {
    EXPECT_EQ(::iswrite(isfd_, record_of(id, 'c').data()), 0);
    change(id - 30, 'd');
  }
  for (int id = 100; id < 200; ++id) EXPECT_EQ(::isdelete(isfd_, record_of(id, ' ').data()), 0);
  for (int id = 100; id < 150; ++id) EXPECT_EQ(::iswrite(isfd_, record_of(id, 'e').data()), 0);
  EXPECT_EQ(::isclose(isfd_), 0);
  EXPECT_EQ(check().find('?'), std::string::npos) << check();
  isfd_ = ::isopen(base_.c_str(), ISINPUT + ISMANULOCK);
  std::string got;
  for (const int id : {99, 100, 149, 150, 199, 200, 3969, 3970, 4019, 4020, 4049}) {
    got += filling_of(id);
  }
  EXPECT_EQ(got, "bee??bbddcc");
}

TEST_F(WaitingPages, AWriteThatFailsIsToldAndTriedAgain) {
  change_all('b');
  error_ = EIO;
  EXPECT_EQ(::isflush(isfd_), -1);
  EXPECT_EQ(::iserrno, EIO);
  EXPECT_EQ(filling_of(17), 'b');
  error_ = 0;
  EXPECT_EQ(::isclose(isfd_), -1);  // the pair's mark stays, and so does what was told
  EXPECT_EQ(in_file('b'), kRecords);
  EXPECT_EQ(::isopen(base_.c_str(), ISINOUT + ISMANULOCK), -1);
  EXPECT_EQ(::iserrno, ISECORRUPT);
  run_program({.words = {KESTRO_PROGRAM, "-yq", base_}});
  isfd_ = ::isopen(base_.c_str(), ISINOUT + ISMANULOCK);
  EXPECT_EQ(filling_of(17), 'b');
}

// The close tells it, and keeps neither the changes nor their memory.
TEST_F(WaitingPages, AWriteThatFailsForEverIsLost) {
  const std::int64_t before = address_space();
  change_all('b');
  EXPECT_GT(address_space() - before, kMostBytes / 2);
  error_ = EIO;
  EXPECT_EQ(::isclose(isfd_), -1);
  EXPECT_EQ(::iserrno, EIO);
  error_ = 0;
  EXPECT_LT(address_space() - before, kMostBytes / 2);
  EXPECT_EQ(::isopen(base_.c_str(), ISINOUT + ISMANULOCK), -1);
  EXPECT_EQ(::iserrno, ISECORRUPT);
  run_program({.words = {KESTRO_PROGRAM, "-yq", base_}});
  isfd_ = ::isopen(base_.c_str(), ISINOUT + ISMANULOCK);
  EXPECT_EQ(filling_of(17), filling_in_file(17));
  EXPECT_GT(in_file('a'), kRecords / 2);
}

TEST_F(WaitingPages, AChildHasNothingOfThem) {
  const std::int64_t before = address_space();
  change_all('b');
  const int written = in_file('b');
  const pid_t child = ::fork();
  if (child == 0) {
    const bool refused = ::isflush(isfd_) == -1 && ::iserrno == ISENOTOPEN;
    const bool gave_back = address_space() - before < kMostBytes / 2;
    ::_exit(refused && gave_back && in_file('b') == written ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(::isflush(isfd_), 0);
  EXPECT_EQ(in_file('b'), kRecords);
}

// Bytes that lie on both sides of the end of what pages may wait of.
TEST(WaitingPagesOfAFile, EndsWhereItsMemoryDoes) {
  const TempFolder folder;
  isam::OpenPair file;
  file.data.fd = ::open((folder / "sparse").c_str(), O_CREAT | O_RDWR, 0600);
  ASSERT_EQ(::ftruncate(file.data.fd, kMostBytes + 8192), 0);
  file.data.map.look_again(file.data.fd);
  isam::WaitingPages waiting;
  std::vector<isam::Byte> bytes(100, 1);
  EXPECT_FALSE(waiting.take(file, kMostBytes, bytes));
  EXPECT_FALSE(waiting.take(file, kMostBytes - 50, bytes));
  EXPECT_TRUE(waiting.take(file, kMostBytes - 100, bytes));
  std::ranges::fill(bytes, isam::Byte{2});
  waiting.written(file, kMostBytes - 50, bytes);
  waiting.written(file, kMostBytes, bytes);
  std::ranges::fill(bytes, isam::Byte{3});
  waiting.put_into(file, kMostBytes - 75, bytes);
  EXPECT_EQ(std::ranges::count(bytes, isam::Byte{1}), 25);
  EXPECT_EQ(std::ranges::count(bytes, isam::Byte{2}), 50);
  EXPECT_EQ(std::ranges::count(bytes, isam::Byte{3}), 25);
  EXPECT_TRUE(waiting.has(file, kMostBytes - 1, 100));
  EXPECT_FALSE(waiting.has(file, kMostBytes, 100));
  std::int64_t end = 0;
  waiting.write_all([&](std::int64_t offset, isam::ConstBytes pages) {
    end = offset + static_cast<std::int64_t>(pages.size());
    return 0;
  });
  EXPECT_EQ(end, kMostBytes);
  ::close(file.data.fd);
}

TEST_F(WaitingPages, AProcessThatIsKilledLosesNoMoreThanASecond) {
  ::isclose(isfd_);
  const pid_t child = ::fork();
  if (child == 0) {
    isfd_ = ::isopen(base_.c_str(), kExclusive);
    read_to_and_fro();
    change_all('b');
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    change_all('c');
    ::raise(SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(in_file('a'), 0);
  run_program({.words = {KESTRO_PROGRAM, "-yq", base_}});
  EXPECT_EQ(check().find('?'), std::string::npos) << check();
}

}  // namespace
}  // namespace testing_support
