#include "tests/support/run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace testing_support {
namespace {

struct Pipe {
  int ends[2] = {-1, -1};
  Pipe() {
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  }
  ~Pipe() {
    close_end(0);
    close_end(1);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  void close_end(int end) {
    if (ends[end] >= 0) ::close(ends[end]);
    ends[end] = -1;
  }
};

[[noreturn]] void become(const RunRequest& request, Pipe& in, Pipe& out, Pipe& err) {
  ::dup2(in.ends[0], STDIN_FILENO);
  ::dup2(out.ends[1], STDOUT_FILENO);
  ::dup2(err.ends[1], STDERR_FILENO);
  for (const std::string& setting : request.environment) {
    const std::size_t equals = setting.find('=');
    ::setenv(setting.substr(0, equals).c_str(), setting.substr(equals + 1).c_str(), 1);
  }
  std::vector<char*> words;
  for (const std::string& word : request.words) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  if (::chdir(request.folder.c_str()) == 0) {
    if (request.before) request.before();
    ::execv(words[0], words.data());
  }
  ::_exit(127);
}

// The time that has passed while this process ran. One that was stopped, or had to wait long for a
// processor, finds on its return that the program has ended meanwhile, or was stopped too.
class RunningTime {
 public:
  std::chrono::steady_clock::duration until_now() {
    const auto now = std::chrono::steady_clock::now();
    spent_ += std::min<std::chrono::steady_clock::duration>(now - last_, std::chrono::seconds(1));
    last_ = now;
    return spent_;
  }

 private:
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::duration spent_{};
};

// Appends what there is to read; false at the end.
bool drain(int fd, std::string& to) {
  std::array<char, 65536> buffer;
  const ssize_t got = ::read(fd, buffer.data(), buffer.size());
  if (got > 0) to.append(buffer.data(), static_cast<std::size_t>(got));
  return got > 0;
}

}  // namespace

RunResult run_program(const RunRequest& request) {
  Pipe in;
  Pipe out;
  Pipe err;
  std::signal(SIGPIPE, SIG_IGN);
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) become(request, in, out, err);
  in.close_end(0);
  out.close_end(1);
  err.close_end(1);
  // Answers are short: they fit the pipe.
  if (::write(in.ends[1], request.input.data(), request.input.size()) < 0) in.close_end(1);
  in.close_end(1);

  RunResult run;
  RunningTime spent;
  std::array<pollfd, 2> ends{{{out.ends[0], POLLIN, 0}, {err.ends[0], POLLIN, 0}}};
  while (ends[0].fd >= 0 || ends[1].fd >= 0) {
    if (spent.until_now() > std::chrono::seconds(request.seconds)) {
      run.timed_out = true;
      ::kill(child, SIGKILL);
      break;
    }
    if (::poll(ends.data(), ends.size(), 100) < 0) continue;
    if (ends[0].revents != 0 && !drain(ends[0].fd, run.out)) ends[0].fd = -1;
    if (ends[1].revents != 0 && !drain(ends[1].fd, run.err)) ends[1].fd = -1;
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (WIFEXITED(status)) run.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
  return run;
}

TempFolder::TempFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kestro-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
  path_ = pattern;
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace testing_support
