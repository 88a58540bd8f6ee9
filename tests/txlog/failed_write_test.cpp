// What the log tells of changes that were not made, because something could not be written, linked
// or removed: nothing, as a recovery over the copied files shows. Single cases stand in
// tests/scripts/failed-writes.
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <functional>
#include <set>
#include <utility>

#include "common/io.h"
#include "isam/log/logformat.h"
#include "tests/txlog/log_fixture.h"

namespace testing_support {
namespace {

enum class Fails {
  kThis,
  kThisOn,
  kBehind
};  // one write of the log, all from it on, all behind it

// The disk as the library meets it.
struct Disk {
  int turn = -1;  // the write of the log that counts, from 0; below 0 none
  Fails fails = Fails::kThis;
  bool stays = false;      // full, also in later calls
  bool stranger = false;   // another process appends something right behind that write
  std::int64_t room = -1;  // bytes by which files may still grow; below 0 any
  int moves = -1;          // the link or removal that fails, from 0
  ino_t log = 0;
  bool full = false;
  bool pairs_too = true;
  int refused = 0;
} disk;

void append_as_stranger() {
  std::vector<Byte> record;
  EXPECT_TRUE((isam::txlog::LogRecordBuilder{record, isam::txlog::LogType::kBegin}.finish()));
  isam::txlog::stamp_record(record.data(), 1, 1, 1, {});
  std::ofstream log{"log", std::ios::app | std::ios::binary};
  log.write(reinterpret_cast<const char*>(record.data()),
            static_cast<std::streamsize>(record.size()));
}

int refuse(int reason) {
  ++disk.refused;
  errno = reason;
  return -1;
}

ssize_t write_to_disk(int fd, const void* from, std::size_t count, off_t offset) {
  struct stat status {};
  ::fstat(fd, &status);
  const bool is_log = status.st_ino == disk.log;
  const std::int64_t growth = offset + static_cast<off_t>(count) - status.st_size;
  if (disk.room >= 0 && growth > disk.room) return refuse(ENOSPC);
  if (disk.room >= 0 && growth > 0) disk.room -= growth;
  const bool counts = is_log && disk.turn-- == 0;
  const bool was_full = disk.full && (is_log || disk.pairs_too);
  if (counts) disk.full = disk.fails != Fails::kThis;
  if (was_full || (counts && disk.fails != Fails::kBehind)) {
    if (is_log && ::pwrite(fd, from, count / 2, offset) < 0) return -1;
    return refuse(ENOSPC);
  }
  const ssize_t written = ::pwrite(fd, from, count, offset);
  if (counts && disk.stranger) append_as_stranger();
  return written;
}

// Whether the link or removal that comes now fails.
bool stands_still() { return disk.moves-- == 0; }
int link_on_disk(const char* from, const char* to) {
  return stands_still() ? refuse(EPERM) : ::link(from, to);
}
int unlink_on_disk(const char* path) { return stands_still() ? refuse(EACCES) : ::unlink(path); }

class FailedWrites : public LogTest {
 protected:
  FailedWrites() {
    for (const char* name : {"pair", "second"}) {
      build_pair(name, varying());
      const int isfd = open(name, 0);
      for (int id = 1; id <= 12; ++id) EXPECT_EQ(write(isfd, row(id, id % 3, filler(id * 60))), 0);
      ::isclose(isfd);
    }
  }
  ~FailedWrites() override { common::system_calls() = system_; }

  // Everything begins anew: the pairs from the copy, an empty log.
  void begin(const Disk& how) {
    ::iscleanup();
    if (copied_) restore_copy();
    if (!std::exchange(copied_, true)) keep_copy();
    std::ofstream{"log"};
    EXPECT_EQ(::islogopen("log"), 0);
    isfd_ = open("pair");
    disk = how;
    struct stat status {};
    ::stat("log", &status);
    disk.log = status.st_ino;
    common::system_calls().pwrite = write_to_disk;
    common::system_calls().link = link_on_disk;
    common::system_calls().unlink = unlink_on_disk;
  }
  void disk_has_room() { common::system_calls() = system_; }

  // What every pair of the folder holds, by number, and how many indexes. Half a pair is none.
  // One whose exclusive open was not closed well is left out.
  std::map<std::string, std::string> contents() {
    std::map<std::string, std::string> all;
    for (const auto& entry : std::filesystem::directory_iterator(".")) {
      if (entry.path().extension() != ".idx") continue;
      const std::string name = entry.path().stem();
      if (!std::filesystem::exists(name + ".dat")) continue;
      std::string record(kMaximum, 0);
      keydescr by_number{};
      dictinfo info{};
      const int isfd = ::isopen(name.c_str(), ISINPUT + ISEXCLLOCK + ISANYLENGTH);
      if (isfd < 0 && iserrno == ISECORRUPT) marked_.insert(name);
      if (marked_.contains(name)) {
        ::isclose(isfd);
        continue;
      }
      EXPECT_GE(isfd, 0) << name << " " << iserrno;
      EXPECT_EQ(::isdictinfo(isfd, &info), 0);
      std::string& text = all[name];
      text = std::to_string(info.di_nkeys) + " indexes;";
      ::isstart(isfd, &by_number, 0, record.data(), RD_FIRST);
      while (::isread(isfd, record.data(), RD_NEXT) == 0) {
        const auto length = static_cast<std::size_t>(isreclen);
        text += ' ' + std::to_string(isrecnum) + '=' + record.substr(0, kMinimum) + '+' +
                std::to_string(length);
      }
      ::isclose(isfd);
    }
    return all;
  }

  // Ends the work, and holds what the files hold against what a recovery makes of the copy.
  void expect_the_same_of_recovery(const std::string& what) {
    disk_has_room();
    const bool ended = ::iscommit() == 0 || iserrno == ISENOBEGIN;
    const std::int32_t reason = iserrno;
    ::iscleanup();
    EXPECT_EQ(::islogclose(), 0) << what << " " << iserrno;
    marked_.clear();
    const auto live = contents();
    // Only what an exclusive open could not write fails a commit then, and leaves its mark.
    EXPECT_TRUE(ended || (reason == ENOSPC && !marked_.empty())) << what << " " << reason;
    const std::string log = types();
    restore_copy();
    ASSERT_EQ(::islogopen("log"), 0);
    EXPECT_EQ(::isrecover(), 0) << what << " " << iserrno << " " << log;
    EXPECT_EQ(contents(), live) << what << " " << log;
  }

  static keydescr group_and_id() {
    return {0, 2, {{kGroupAt, 8, KT_CHAR}, {0, kIdLength, KT_CHAR}}, 0, 0};
  }
  static int alone(const char* name) {
    return ::isopen(name, ISINOUT + ISEXCLLOCK + ISTRANS + format());
  }

  // Does what is logged, one call after the other; a transaction ends as `commits` says.
  void run(bool commits) {
    const auto call = [&](auto work) {
      work();
      if (!disk.stays) disk.full = false;
    };
    call([&] { write(isfd_, row(20, 1, filler(900))); });
    call([&] { rewrite(isfd_, row(3, 9, filler(2500))); });
    call([&] { erase(isfd_, 4); });
    call([&] { ::isbegin(); });
    call([&] { rewrite(isfd_, row(5, 9, filler(3))); });
    call([&] { write(isfd_, row(21, 2, filler(100))); });
    call([&] { erase(isfd_, 6); });
    call([&] { rewrite(isfd_, row(21, 8, filler(1800))); });
    call([&] { ::isclose(isfd_); });
    call([&] { isfd_ = open("pair"); });
    call([&] { erase(isfd_, 1); });
    call([&] {
      disk.pairs_too = commits;  // undoing is what the files need room for
      commits ? ::iscommit() : ::isrollback();
      disk.pairs_too = true;
    });
    call([&] { rewrite(isfd_, row(7, 9, filler(2000))); });
    std::int32_t id = 0;
    call([&] { ::isuniqueid(isfd_, &id); });
    call([&] { ::isclose(isfd_); });
    call([&] { isfd_ = open("pair", 0); });
    call([&] { erase(isfd_, 8); });
    call([&] { write(isfd_, row(22, 2, filler(700))); });
    call([&] { ::isclose(isfd_); });
    keydescr key = group_key();
    call([&] { isfd_ = alone("second"); });
    call([&] {
      const int clustered = ::iscluster(isfd_, &key);
      if (clustered >= 0) isfd_ = clustered;
    });
    call([&] { ::isclose(isfd_); });
    call([&] {
      const int moves = std::exchange(disk.moves, -1);  // half a renaming is not undone
      ::isrename("second", "renamed");
      disk.moves = moves;
    });
    keydescr id_only = id_key();
    call([&] {
      isreclen = kMinimum;
      const int mode = ISINOUT + ISEXCLLOCK + format();
      ::isclose(::isbuild("made", varying() ? kMaximum : kMinimum, &id_only, mode));
    });
    call([&] { ::iserase(commits ? "made" : "pair"); });
    call([&] {
      isfd_ = open("second");
      write(isfd_, row(30, 1));
      ::isclose(isfd_);
    });
  }

  int isfd_ = -1;

 private:
  std::set<std::string> marked_;
  bool copied_ = false;
  common::SystemCalls system_ = common::system_calls();
};
INSTANTIATE_TEST_SUITE_P(Formats, FailedWrites, ::testing::Bool(),
                         [](const auto& format) { return format.param ? "Varying" : "Fixed"; });

// Whichever write of the log the disk fails at or behind, for how long, and whether or not others
// append meanwhile; wherever it is full; whichever link or removal fails.
TEST_P(FailedWrites, LeaveNothingInTheLog) {
  std::vector<Disk> disks{{.room = 0}, {.moves = 0}};
  for (const Fails fails : {Fails::kThis, Fails::kThisOn, Fails::kBehind}) {
    for (int how = 0; how < 4; ++how) {
      disks.push_back({.turn = 0, .fails = fails, .stays = (how & 1) != 0, .stranger = how >= 2});
    }
  }
  int refused = 0;
  for (int kind = 0; kind < 2 * std::ssize(disks) && !HasFailure(); ++kind) {
    const bool commits = kind % 2 != 0;
    Disk how = disks.at(static_cast<std::size_t>(kind / 2));
    for (bool passed = false; !passed && !HasFailure();) {
      begin(how);
      run(commits);
      refused += disk.refused;
      passed = how.turn >= 0    ? disk.turn >= 0
               : how.moves >= 0 ? disk.moves >= 0
                                : disk.refused == 0;
      expect_the_same_of_recovery("kind " + std::to_string(kind) + ", turn " +
                                  std::to_string(how.turn) + ", room " + std::to_string(how.room) +
                                  ", moves " + std::to_string(how.moves));
      if (how.turn >= 0) ++how.turn;
      if (how.moves >= 0) ++how.moves;
      if (how.room >= 0) how.room += varying() ? 499 : 97;
    }
  }
  EXPECT_GT(refused, 100);
}

TEST_P(FailedWrites, LeaveALogEmptyThatCannotBegin) {
  begin({});
  ::islogclose();
  std::ofstream{"log"};
  disk.turn = 0;
  EXPECT_EQ(::islogopen("log"), -1);
  EXPECT_EQ(iserrno, ISELOGWRITE);
  EXPECT_EQ(::islogopen("log"), 0) << iserrno;
}

// What a commit could not free is free after whatever ends next, and once.
TEST_P(FailedWrites, OfACommitAreTriedAgain) {
  static int turn;
  static bool lasts;
  const std::vector<std::function<int()>> ends{
      [&] { return ::isbegin() + ::iscommit(); },
      [&] { return ::isbegin() + erase(isfd_, 2) + ::isrollback(); },
      [&] { return ::isclose(isfd_); }, [] { return ::iscleanup(); }};
  for (std::size_t round = 0; round <= ends.size(); ++round) {
    for (int first = 0;; ++first) {
      ::islogclose();
      begin({});
      ASSERT_EQ(::isbegin(), 0);
      EXPECT_EQ(erase(isfd_, 5) + erase(isfd_, 7) + rewrite(isfd_, row(9, 9)), 0);
      turn = first;
      lasts = round < ends.size();
      common::system_calls().pwrite = [](int fd, const void* from, std::size_t count, off_t at) {
        struct stat status {};
        ::fstat(fd, &status);
        if (status.st_ino == disk.log || turn-- > 0) return ::pwrite(fd, from, count, at);
        turn = lasts ? 0 : INT_MAX;
        return static_cast<ssize_t>(refuse(EIO));
      };
      disk.refused = 0;
      const int committed = ::iscommit();
      const int reason = iserrno;
      disk_has_room();
      if (disk.refused == 0) break;
      EXPECT_EQ((std::pair{committed, reason}), (lasts ? std::pair{-1, EIO} : std::pair{0, 0}));
      if (lasts) {
        EXPECT_EQ(ends[round](), 0) << round << " " << iserrno;
      }
      ::iscleanup();
      EXPECT_EQ(faults("pair"), "") << "end " << round << ", from write " << first << " on";
      if (HasFailure() || (lasts && varying())) break;  // records there cannot be written back
    }
    ASSERT_FALSE(HasFailure());
  }
}

// An index that would refuse what a rollback puts back.
TEST_P(FailedWrites, RefuseAUniqueIndexWhereKeysMayComeBack) {
  begin({});
  for (const auto& [change, refused] : std::vector<std::pair<std::function<int()>, bool>>{
           {[&] { return write(isfd_, row(30, 3)); }, false},
           {[&] { return rewrite(isfd_, row(1, 7)); }, true},
           {[&] { return erase(isfd_, 2); }, true},
           {[&] {
              disk.turn = 0;
              disk.fails = Fails::kBehind;
              return erase(isfd_, 2) + 1;
            },
            false}}) {
    ASSERT_EQ(::isbegin(), 0);
    EXPECT_EQ(change(), 0);
    disk.full = false;
    const int other = alone("pair");
    keydescr unique = group_and_id();
    EXPECT_EQ(::isaddindex(other, &unique), refused ? -1 : 0);
    EXPECT_EQ(iserrno, refused ? ISEINUSE : 0);
    unique.flags = KF_DUPS;
    EXPECT_EQ(refused ? ::isaddindex(other, &unique) : 0, 0);
    EXPECT_EQ(::isdelindex(isfd_, &unique), -1) << "not exclusive";
    EXPECT_EQ(::isrollback(), 0);
    EXPECT_EQ(::isdelindex(other, &unique), -1) << "in use";
    ::isclose(isfd_);
    EXPECT_EQ(::isdelindex(other, &unique), 0);
    ::isclose(other);
    isfd_ = open("pair");
  }
  expect_the_same_of_recovery("");
}

}  // namespace
}  // namespace testing_support
