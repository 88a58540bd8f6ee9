#include "bench/measure.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>

#include "common/holders.h"
#include "common/io.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// What a process, or this one, has used so far.
Run used(const rusage& usage) {
  return {.user = seconds(usage.ru_utime),
          .system = seconds(usage.ru_stime),
          .peak = std::int64_t{usage.ru_maxrss} * 1024};
}

Run used_here() {
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) != 0) throw std::runtime_error("getrusage");
  return used(usage);
}

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Starts the program with `output` as its standard output.
pid_t start(const std::vector<std::string>& command, int output) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    dup2(output, STDOUT_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  return child;
}

Run wait_for(pid_t child, const std::string& name) {
  int status = 0;
  rusage usage{};
  while (wait4(child, &status, 0, &usage) < 0) {
    if (errno != EINTR) fail("wait4");
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(name + " failed");
  return used(usage);
}

}  // namespace

Summary summarize(std::vector<Run> runs) {
  std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.wall < b.wall; });
  return {runs.front(), runs[runs.size() / 2]};
}

Run read_through(const std::vector<std::string>& files, std::size_t chunk) {
  std::vector<char> buffer(chunk);
  const Run before = used_here();
  const auto start_time = Clock::now();
  for (const std::string& path : files) {
    const common::FileHold file{common::open_file(path.c_str(), O_RDONLY)};
    if (!file) fail(path);
    ssize_t got = 0;
    while ((got = read(file.get(), buffer.data(), buffer.size())) > 0) {
    }
    if (got < 0) fail(path);
  }
  const double wall = seconds_since(start_time);
  const Run after = used_here();
  return {.wall = wall,
          .user = after.user - before.user,
          .system = after.system - before.system,
          .peak = after.peak};
}

Run run_child(const std::vector<std::string>& command) {
  const common::FileHold nowhere{common::open_file("/dev/null", O_WRONLY)};
  if (!nowhere) fail("/dev/null");
  const auto start_time = Clock::now();
  Run run = wait_for(start(command, nowhere.get()), command.front());
  run.wall = seconds_since(start_time);
  return run;
}

std::string output_of(const std::vector<std::string>& command) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("pipe");
  const common::FileHold reader{ends[0]};
  common::FileHold writer{ends[1]};
  const pid_t child = start(command, writer.get());
  writer = common::FileHold{};
  std::string text;
  std::array<char, 4096> buffer{};
  ssize_t got = 0;
  while ((got = read(reader.get(), buffer.data(), buffer.size())) > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
  wait_for(child, command.front());
  return text;
}

}  // namespace bench
