// What SQLIDEBUG may not do; tests/scripts/trace shows what it writes.
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
#include <utility>
#include <vector>

#include "common/io.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

namespace fs = std::filesystem;

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
