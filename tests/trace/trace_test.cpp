// What SQLIDEBUG writes, and what it may not do.
#include "trace/trace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <regex>
#include <utility>
#include <vector>

#include "common/io.h"
#include "isam.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

namespace fs = std::filesystem;

constexpr int kRecordLength = 20;

class Trace : public testing::Test {
 protected:
  Trace() : path_(folder_ / "trace") {}
  ~Trace() override {
    ::unsetenv("SQLIDEBUG");
    trace::state = trace::State::kUnknown;
  }

  static void trace_to(const std::string& path) {
    ::setenv("SQLIDEBUG", path.c_str(), 1);
    trace::state = trace::State::kUnknown;
  }

  static bool is_traced_to(const std::string& path) {
    trace_to(path);
    return trace::on();
  }

  static std::vector<std::string> lines(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> result;
    for (std::string line; std::getline(file, line);) result.push_back(line);
    return result;
  }

  TempFolder folder_;
  std::string path_;
};

TEST_F(Trace, ShowsWhatIsExchanged) {
  trace_to(path_);
  const std::string base = folder_ / "pair";
  keydescr key{0, 1, {{0, 8, KT_CHAR}}, 0, 0};
  const int isfd = isbuild(base.c_str(), kRecordLength, &key, ISINOUT + ISMANULOCK);
  ASSERT_EQ(isfd, 0);
  char record[kRecordLength + 1] = "00000042Smith   \0\0\0\x07";
  EXPECT_EQ(iswrite(isfd, record), 0);
  EXPECT_EQ(iswrite(isfd, record), -1);
  EXPECT_EQ(isread(isfd, record, RD_EQUAL), 0);
  EXPECT_EQ(isread(isfd, record, RD_NEXT), -1);
  EXPECT_EQ(iserrno, ISEEND);
  EXPECT_EQ(isdelcurr(isfd), 0);
  EXPECT_EQ(isbegin(), -1);
  dictinfo info{};
  EXPECT_EQ(isdictinfo(isfd, &info), 0);
  EXPECT_EQ(isclose(isfd), 0);
  EXPECT_EQ(isread(isfd, record, RD_EQUAL), -1);

  const std::vector<std::string> dump = {
      "     0  30 30 30 30 30 30 34 32  53 6D 69 74 68 20 20 20  |00000042Smith   |",
      "    16  00 00 00 07                                       |....|"};
  const std::string pid = std::to_string(::getpid());
  const std::vector<std::string> expected = {
      "> isbuild 1026, " + std::to_string(base.size()) + " bytes",
      "*",  // the name
      "< isbuild 1026 = 0",
      "> iswrite 0, 20 bytes",
      dump[0],
      dump[1],
      "< iswrite 0 = 0",
      "> iswrite 0, 20 bytes",
      dump[0],
      dump[1],
      "< iswrite 0 = -1, error 100, status 2222",
      "> isread 0, 20 bytes",
      dump[0],
      dump[1],
      "< isread 0 = 0, 20 bytes",
      dump[0],
      dump[1],
      "> isread 0",
      "< isread 0 = -1, error 110, status 1046",
      "> isdelcurr 0",
      "< isdelcurr 0 = 0",
      "> isbegin",
      "< isbegin = -1, error 122, status 9000",
      "> isdictinfo 0",
      "< isdictinfo 0 = 0, 16 bytes",
      "     0  01 00 00 00 14 00 00 00  FF 03 00 00 00 00 00 00  |................|",
      "> isclose 0",
      "< isclose 0 = 0",
      "> isread 0",
      "< isread 0 = -1, error 101, status 9090",
  };
  const std::regex head(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z (\d+) ([<>] .*))");
  auto want = expected.begin();
  for (const std::string& line : lines(path_)) {
    std::smatch found;
    const bool begins = std::regex_match(line, found, head);
    EXPECT_TRUE(!begins || found[1] == pid) << line;
    if (want != expected.end() && *want == "*") {
      if (!begins) continue;
      ++want;
    }
    ASSERT_NE(want, expected.end()) << line;
    EXPECT_EQ(begins ? found[2].str() : line, *want);
    ++want;
  }
  EXPECT_EQ(want, expected.end());
}

TEST_F(Trace, IsTheUsersOwn) {
  ASSERT_TRUE(is_traced_to(path_));
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);

  fs::create_symlink("linked", folder_ / "link");
  EXPECT_TRUE(is_traced_to(folder_ / "link"));
  EXPECT_TRUE(fs::exists(folder_ / "linked"));
  fs::create_symlink(folder_ / "link", folder_ / "link_to_link");
  EXPECT_FALSE(is_traced_to(folder_ / "link_to_link"));

  fs::create_hard_link(path_, folder_ / "second_name");
  EXPECT_FALSE(is_traced_to(path_));
  ASSERT_EQ(::mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  for (const std::string& bad :
       {folder_ / "fifo", folder_ / ".", folder_ / "no/such", std::string()}) {
    EXPECT_FALSE(is_traced_to(bad)) << bad;
  }
}

int fstat_of_anothers(int fd, struct stat* status) {
  const int result = ::fstat(fd, status);
  ++status->st_uid;
  return result;
}

TEST_F(Trace, KeepsAwayFromOtherUsersFiles) {
  std::ofstream(path_).put('x');
  fs::create_symlink("target", folder_ / "link");
  const auto system_fstat = std::exchange(common::system_calls().fstat, fstat_of_anothers);
  EXPECT_FALSE(is_traced_to(path_));
  EXPECT_FALSE(is_traced_to(folder_ / "link"));
  common::system_calls().fstat = system_fstat;
  EXPECT_FALSE(fs::exists(folder_ / "target"));
}

TEST_F(Trace, LetsEntriesOfSeveralProcessesStandWhole) {
  constexpr int kProcesses = 4;
  constexpr int kEntries = 200;
  const std::vector<common::Byte> buffer(100 * 16, 'x');
  trace_to(path_);
  for (int i = 0; i < kProcesses; ++i) {
    if (::fork() != 0) continue;
    for (int n = 0; trace::on() && n < kEntries; ++n) {
      trace::write(trace::Direction::kToLibrary, "call", buffer);
    }
    ::_exit(0);
  }
  while (::wait(nullptr) > 0) continue;
  const std::vector<std::string> all = lines(path_);
  ASSERT_EQ(all.size(), std::size_t{kProcesses} * kEntries * 101);
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[i].ends_with("> call, 1600 bytes"), i % 101 == 0) << all[i];
  }
}

TEST_F(Trace, LeavesTheApplicationsDescriptorsAndErrnoAlone) {
  ASSERT_TRUE(is_traced_to(path_));
  int fd = -1;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry, gone) == path_) fd = std::stoi(entry.path().filename());
  }
  ASSERT_GE(fd, 0);
  const int own = ::open((folder_ / "own").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::dup2(own, fd), fd);
  errno = EXDEV;
  trace::write(trace::Direction::kToLibrary, "call", {});
  EXPECT_EQ(errno, EXDEV);
  EXPECT_FALSE(trace::on());
  EXPECT_EQ(fs::file_size(folder_ / "own"), 0u);
  EXPECT_EQ(fs::file_size(path_), 0u);
  ::close(fd);
  ::close(own);
}

}  // namespace
}  // namespace testing_support
