// The files of a pair: what is done with them when they are not what or where they were.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string_view>
#include <utility>
#include <vector>

#include "common/io.h"
#include "tests/e2e/sessions.h"
#include "tests/support/layout.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

class Files : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { build_pair_of(base_, GetParam(), 30); }
  [[nodiscard]] Session session(const std::string& base) const { return {base, GetParam()}; }

  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
};

// A damaged dictionary may name numbers far past the end. Nothing is written there.
TEST_P(Files, DoNotBecomeImmense) {
  const Image sound = read_file(base_ + ".idx");
  constexpr std::int64_t kJustTooMany = (1 << 17) + 100;  // of nodes; records may take little room
  for (const int field : {dict::kNextNode, dict::kNextData}) {
    for (const std::int64_t last :
         {kJustTooMany, std::int64_t{0x1000000}, std::int64_t{0x7FFFFF00}}) {
      if (field == dict::kNextData && last == kJustTooMany) continue;
      SCOPED_TRACE(std::to_string(field) + " " + std::to_string(last));
      Image damaged = sound;
      put4(&damaged[static_cast<std::size_t>(field)], last);
      write_file(base_ + ".idx", damaged);
      Session pair = session(base_);
      for (const int lock : {ISMANULOCK, ISEXCLLOCK}) {
        ASSERT_GE(pair.open(ISINOUT | lock), 0);
        int result = 0;
        for (int id = 100; id < 400 && result == 0; ++id)
          result = pair.put({id, id % 7, 0}, ::iswrite);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(::iserrno, ISECORRUPT);
        ::isclose(pair.isfd);
      }
      for (const char* suffix : {".idx", ".dat"}) {
        EXPECT_LT(std::filesystem::file_size(base_ + suffix), 1 << 20) << suffix;
      }
    }
  }
}

bool out_of_descriptors = false;
int open_if_descriptors(const char* path, int flags, mode_t permissions) {
  errno = EMFILE;
  return std::exchange(out_of_descriptors, false) ? -1 : ::open(path, flags, permissions);
}

// Its data file is closed for want of descriptors, and the process goes elsewhere.
TEST_P(Files, AreFoundAgainFromAnotherFolder) {
  build_pair_of(folder_ / "other", GetParam(), 1);
  EXPECT_EQ(end_of(start_process([&] {
              std::filesystem::current_path(folder_.path());
              common::system_calls().open = open_if_descriptors;
              Session pair = session("pair");
              Session other = session("other");
              if (pair.open(ISINOUT | ISMANULOCK) < 0) ::_exit(1);
              out_of_descriptors = true;
              if (other.open(ISINOUT | ISMANULOCK) < 0 || out_of_descriptors) ::_exit(2);
              std::filesystem::current_path("/");
              if (pair.read(RD_EQUAL, 7) != 0) ::_exit(3);
            })),
            0);
}

// The pair gets another one's place while it is being opened: before its data file is, or before
// the open lock is had.
enum class Moment { kNever, kData, kLock } replaced_at = Moment::kNever;

void replace_pair(Moment now) {
  if (now != replaced_at) return;
  replaced_at = Moment::kNever;
  for (const char* suffix : {".idx", ".dat"}) {
    std::filesystem::rename(std::string("other") + suffix, std::string("pair") + suffix);
  }
}
int open_and_replace(const char* path, int flags, mode_t permissions) {
  if (std::string_view(path).ends_with(".dat")) replace_pair(Moment::kData);
  return ::open(path, flags, permissions);
}
int lock_and_replace(int fd, int command, struct flock* lock) {
  if (lock->l_start == 0x7FFFFFFF && lock->l_type != F_UNLCK) replace_pair(Moment::kLock);
  return ::fcntl(fd, command, lock);
}

TEST_P(Files, AreThoseThatHaveTheNameWhenTheyAreOpen) {
  for (const Moment moment : {Moment::kData, Moment::kLock}) {
    build_pair_of(folder_ / "other", GetParam(), 40);
    EXPECT_EQ(end_of(start_process([&] {
                std::filesystem::current_path(folder_.path());
                common::system_calls().open = open_and_replace;
                common::system_calls().fcntl_lock = lock_and_replace;
                replaced_at = moment;
                Session pair = session("pair");
                if (pair.open(ISINOUT | ISMANULOCK) < 0) ::_exit(1);
                if (replaced_at != Moment::kNever || pair.read(RD_EQUAL, 37) != 0) ::_exit(2);
                if (pair.put({50, 1, 0}, ::iswrite) != 0 || ::isclose(pair.isfd) != 0) ::_exit(3);
                if (pair.open(ISINOUT | ISEXCLLOCK) < 0 || pair.read(RD_EQUAL, 50) != 0) ::_exit(4);
              })),
              0);
    EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
  }
}

// A process keeps a pair that it has closed at hand; its data file is restored from a copy.
TEST_P(Files, AreNotTheDataOfBefore) {
  EXPECT_EQ(end_of(start_process([&] {
              std::filesystem::current_path(folder_.path());
              ::isvclose(9);
              Session pair = session("pair");
              if (pair.open(ISINOUT | ISMANULOCK) < 0 || ::isclose(pair.isfd) != 0) ::_exit(1);
              std::filesystem::copy("pair.dat", "copy");
              std::filesystem::rename("copy", "pair.dat");
              if (pair.open(ISINOUT | ISMANULOCK) < 0) ::_exit(2);
              if (pair.put({50, 1, 0}, ::iswrite) != 0) ::_exit(3);
            })),
            0);
  EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
}

// Another process takes the open lock of a pair whenever it is free before a request for it.
ino_t wanted_pair = 0;
std::vector<pid_t> intruders;

ino_t inode_of(const char* path) {
  struct stat status {};
  return ::stat(path, &status) == 0 ? status.st_ino : 0;
}
int lock_after_intruder(int fd, int command, struct flock* lock) {
  int ends[2];
  if (lock->l_start == 0x7FFFFFFF && inode_of("pair.idx") == wanted_pair && ::pipe(ends) == 0) {
    intruders.push_back(start_process([&] {
      struct flock shared = *lock;
      shared.l_type = F_RDLCK;
      if (::fcntl(::open("pair.idx", O_RDWR), F_SETLK, &shared) != 0) return;
      if (::write(ends[1], "!", 1) == 1) ::pause();
    }));
    ::close(ends[1]);
    char got = 0;
    static_cast<void>(!::read(ends[0], &got, 1));
    ::close(ends[0]);
  }
  return ::fcntl(fd, command, lock);
}

TEST_P(Files, AreNobodyElsesWhileTheyAreClustered) {
  EXPECT_EQ(end_of(start_process([&] {
              std::filesystem::current_path(folder_.path());
              Session pair = session("pair");
              if (pair.open(ISINOUT | ISEXCLLOCK) < 0) ::_exit(1);
              wanted_pair = inode_of("pair.idx");
              common::system_calls().fcntl_lock = lock_after_intruder;
              keydescr key = group_key();
              const int clustered = ::iscluster(pair.isfd, &key);
              for (const pid_t intruder : intruders) ::kill(intruder, SIGKILL);
              if (clustered < 0) ::_exit(::iserrno);
            })),
            0);
}

// Single records that are written, and how many of these writes fail.
constexpr std::size_t kSlot = kMinimum + 1;
int records_written = 0;
int failures_to_come = 0;
ssize_t write_unless_told(int fd, const void* from, std::size_t count, off_t offset) {
  if (count == kSlot) {
    ++records_written;
    errno = EIO;
    if (failures_to_come > 0 && failures_to_come-- > 0) return -1;
  }
  return ::pwrite(fd, from, count, offset);
}

// A changed record goes to the file by itself once the file is well known. When that fails, the
// call fails and changes nothing; what an exclusive open changes waits in the pool instead, and the
// next call tells that, as does the close, which leaves the mark.
TEST(Records, AreWrittenByThemselvesOrNotAtAll) {
  for (const int lock : {ISMANULOCK, ISEXCLLOCK}) {
    SCOPED_TRACE(lock);
    const TempFolder folder;
    const std::string base = folder / "pair";
    constexpr int kRecords = 600;
    build_pair_of(base, false, kRecords);
    EXPECT_EQ(end_of(start_process([&] {
                common::system_calls().pwrite = write_unless_told;
                Session pair{base};
                if (pair.open(ISINOUT | lock) < 0) ::_exit(1);
                for (int i = 0; i < kRecords; ++i) {
                  if (pair.read(RD_EQUAL, i * 101 % kRecords + 1) != 0) ::_exit(2);
                }
                failures_to_come = 1;
                const int first = pair.put({300, 100, 1}, ::isrewrite);
                if (first != (lock == ISEXCLLOCK ? 0 : -1)) ::_exit(3);
                if (first < 0 && ::iserrno != EIO) ::_exit(4);
                if (failures_to_come != 0) ::_exit(5);
                const Row other{50, 7001, 1};
                const bool late = first == 0;
                if (late && (pair.put(other, ::isrewrite) == 0 || ::iserrno != EIO)) ::_exit(16);
                if (pair.put(other, ::isrewrite) != 0) ::_exit(6);
                if (pair.put({450, 0, 0}, ::isdelete) != 0) ::_exit(7);
                if (pair.put({900, 7002, 1}, ::iswrite) != 0) ::_exit(8);
                if (records_written < 3) ::_exit(9);
                const int counter = late ? 1 : 0;
                if (pair.read(RD_EQUAL, 300) != 0 || pair.row.counter != counter) ::_exit(10);
                if ((::isclose(pair.isfd) != 0) != late) ::_exit(11);
                if (late) kestro("-yq", base);
                if (pair.open(ISINOUT | lock) < 0) ::_exit(17);
                if (pair.read(RD_EQUAL, 300) != 0 || pair.row.counter != counter) ::_exit(12);
                if (pair.read(RD_EQUAL, 50) != 0 || pair.row.group != 7001) ::_exit(13);
                if (pair.read(RD_EQUAL, 450) != -1 || ::iserrno != ISENORECORD) ::_exit(14);
                if (pair.read(RD_EQUAL, 900) != 0 || pair.row.group != 7002) ::_exit(15);
              })),
              0);
    EXPECT_EQ(walk_pair(base).problems, std::vector<std::string>{});
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, Files, testing::Bool(),
                         [](const auto& test) { return test.param ? "Varying" : "Fixed"; });

}  // namespace
}  // namespace testing_support
