// The audit trail: its calls, its entries, and what it does to the other calls.
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/io.h"
#include "tests/txlog/log_fixture.h"

namespace testing_support {
namespace {

class AuditTrail : public LogTest {
 protected:
  AuditTrail() : isfd_(build("pair", 0)) {}
  // The result of a mode, or the code of its failure.
  int audit(int mode, const char* name = "") {
    char buffer[200] = {};
    std::strcpy(buffer, name);
    const int result = ::isaudit(isfd_, buffer, mode);
    told_ = buffer;
    return result == 0 ? 0 : iserrno;
  }
  int isfd_;
  std::string told_;
};
INSTANTIATE_TEST_SUITE_P(Formats, AuditTrail, ::testing::Bool(),
                         [](const auto& format) { return format.param ? "Varying" : "Fixed"; });

TEST_P(AuditTrail, IsNamedAndSwitched) {
  for (const int mode : {AUDGETNAME, AUDSTART}) EXPECT_EQ(audit(mode), ISEARGUMENT);
  EXPECT_EQ(audit(AUDSETNAME), 0) << "no name, and none before";
  EXPECT_EQ(audit(AUDSETNAME, std::string(128, 'n').c_str()), ISEARGUMENT);
  EXPECT_EQ(audit(AUDSETNAME, "no/such/folder"), ISEARGUMENT);
  EXPECT_EQ(audit(AUDSETNAME, "trail"), 0);
  EXPECT_TRUE(std::filesystem::exists("trail"));
  EXPECT_EQ(audit(AUDGETNAME), 0);
  EXPECT_EQ(told_, "trail");
  EXPECT_EQ((audit(AUDINFO), told_), "");
  EXPECT_EQ(audit(AUDSTART), 0);
  EXPECT_EQ((audit(AUDINFO), told_), "\1");
  EXPECT_EQ(audit(AUDSETNAME, "other"), ISEARGUMENT) << "it is on";
  EXPECT_EQ((audit(AUDGETNAME), told_), "trail");
  EXPECT_EQ(audit(AUDSTOP), 0);
  EXPECT_EQ(audit(AUDSETNAME, "other"), 0);
  EXPECT_EQ((audit(AUDGETNAME), told_), "other");
  const Image index = read_file("pair.idx");
  const auto node = static_cast<std::size_t>(get4(&index[49]));
  EXPECT_EQ(get2(&index[(node - 1) * 1024]), 5 + 5);
  EXPECT_EQ(std::memcmp(&index[(node - 1) * 1024 + 4], "other", 6), 0);
  EXPECT_EQ(faults("pair"), "");
  EXPECT_EQ(audit(AUDSETNAME, ""), 0);
  EXPECT_EQ(audit(AUDGETNAME), ISEARGUMENT);
  EXPECT_EQ(get4(&read_file("pair.idx")[49]), 0);
  EXPECT_EQ(faults("pair"), "");
}

TEST_P(AuditTrail, HoldsEachChange) {
  ASSERT_EQ(audit(AUDSETNAME, "trail"), 0);
  ASSERT_EQ(write(isfd_, row(1, 0)), 0);
  ASSERT_EQ(audit(AUDSTART), 0);
  ASSERT_EQ(write(isfd_, row(2, 5, filler(7))), 0);
  ASSERT_EQ(rewrite(isfd_, row(2, 6, filler(2))), 0);
  EXPECT_EQ(write(isfd_, row(2, 7)), -1);  // a duplicate
  ASSERT_EQ(erase(isfd_, 1), 0);
  ASSERT_EQ(audit(AUDSTOP), 0);
  ASSERT_EQ(write(isfd_, row(3, 0)), 0);

  const Image trail = read_file("trail");
  std::size_t at = 0;
  const auto expect = [&](const char* letters, int number, const std::string& record) {
    const std::size_t head = varying() ? 16 : 14;
    ASSERT_LE(at + head + record.size() + 1, trail.size());
    EXPECT_EQ(std::memcmp(&trail[at], letters, 2), 0) << letters;
    EXPECT_EQ(get2(&trail[at + 6]), ::getpid() & 0xFFFF);
    EXPECT_EQ(get2(&trail[at + 8]), static_cast<int>(::getuid() & 0xFFFF));
    EXPECT_EQ(get4(&trail[at + 10]), number);
    if (varying()) {
      EXPECT_EQ(get2(&trail[at + 14]), static_cast<int>(record.size()) + 1);
    }
    EXPECT_EQ(std::memcmp(&trail[at + head], (record + '\n').data(), record.size() + 1), 0);
    at += head + record.size() + 1;
  };
  expect("aa", 2, row(2, 5, filler(7)));
  expect("rr", 2, row(2, 5, filler(7)));
  expect("ww", 2, row(2, 6, filler(2)));
  expect("dd", 1, row(1, 0));
  EXPECT_EQ(at, trail.size());
}

TEST_P(AuditTrail, GoesWithItsFile) {
  ASSERT_EQ(audit(AUDSETNAME, "trail"), 0);
  ASSERT_EQ(audit(AUDSTART), 0);
  ::isclose(isfd_);
  std::filesystem::remove("trail");
  isfd_ = open("pair", 0);
  EXPECT_EQ(write(isfd_, row(1, 0)), -1) << "a change without its entry is not made";
  EXPECT_EQ(iserrno, ENOENT);
  EXPECT_EQ(iserrio, 0x13);
  EXPECT_EQ(rows(isfd_), Rows{});
  std::ofstream{"trail"};
  EXPECT_EQ(write(isfd_, row(1, 0)), 0);
  ::isclose(isfd_);
  const int alone = ::isopen("pair", ISINOUT + ISEXCLLOCK + format());
  keydescr id = id_key();
  EXPECT_EQ(::iscluster(alone, &id), -1);
  EXPECT_EQ(iserrno, ISEAUDIT);
  ::isclose(alone);
  EXPECT_EQ(::iserase("pair"), 0);
  EXPECT_FALSE(std::filesystem::exists("trail"));
}

ino_t full_file = 0;
ssize_t write_but_there(int fd, const void* from, std::size_t count, off_t offset) {
  struct stat status {};
  ::fstat(fd, &status);
  errno = ENOSPC;
  return status.st_ino == full_file ? -1 : ::pwrite(fd, from, count, offset);
}

// The entry of a deletion stands before what the log says of it, and stays when the log cannot say
// it; without its entry the deletion stands all the same.
TEST_P(AuditTrail, StandsBeforeTheLog) {
  ASSERT_EQ(audit(AUDSETNAME, "trail"), 0);
  ASSERT_EQ(audit(AUDSTART), 0);
  ASSERT_EQ(write(isfd_, row(1, 0)), 0);
  ASSERT_EQ(::islogopen("log"), 0);
  for (const char* file : {"log", "trail"}) {
    struct stat status {};
    ::stat(file, &status);
    full_file = status.st_ino;
    const auto before = std::filesystem::file_size("trail");
    const auto system_write = std::exchange(common::system_calls().pwrite, write_but_there);
    EXPECT_EQ(erase(isfd_, 1), -1);
    common::system_calls().pwrite = system_write;
    const bool logs = file == std::string_view{"trail"};
    EXPECT_EQ(iserrno, logs ? ENOSPC : ISELOGWRITE);
    EXPECT_EQ(iserrio, logs ? 0x53 : 0);
    EXPECT_EQ(types(), logs ? "FO DE" : "");
    EXPECT_EQ(rows(isfd_), logs ? Rows{} : Rows{row(1, 0)});
    EXPECT_EQ(std::filesystem::file_size("trail") == before, logs);
    EXPECT_EQ(std::memcmp(&read_file("trail")[kMinimum + (varying() ? 17 : 15)], "dd", 2), 0);
  }
  ::isclose(isfd_);
  std::filesystem::remove("trail");
  EXPECT_EQ(::iserase("pair"), 0) << iserrno;
  EXPECT_EQ(types(), "FO DE FC ER");
}

TEST_P(AuditTrail, IsOpenedWhenDescriptorsAreShort) {
  ASSERT_EQ(audit(AUDSETNAME, "trail"), 0);
  ASSERT_EQ(audit(AUDSTART), 0);
  const int other = (build("other", -1), open("other", 0));
  ASSERT_EQ(write(other, row(1, 0)), 0);
  struct rlimit before {};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const int next = ::dup(0);
  ::close(next);
  const struct rlimit tight { static_cast<rlim_t>(next), before.rlim_max };
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  EXPECT_EQ(write(isfd_, row(1, 0)), 0) << iserrno;
  EXPECT_EQ(write(other, row(2, 0)), 0) << iserrno;
  EXPECT_EQ(write(isfd_, row(2, 0)), 0) << iserrno;
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(rows(isfd_).size(), 2U);
  EXPECT_EQ(read_file("trail").size(), 2U * (kMinimum + (varying() ? 17 : 15)));
}

}  // namespace
}  // namespace testing_support
