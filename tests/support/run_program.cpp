#include "tests/support/run_program.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

#include "tests/support/child_process.h"

namespace testing_support {

RunResult run_program(const RunRequest& request) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  const pid_t child = start_process([&] {
    ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) ::dup2(ends[1], fd);
    std::vector<char*> words;
    for (const std::string& word : request.words) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    if (::chdir(request.folder.c_str()) == 0) ::execv(words[0], words.data());
    ::_exit(127);
  });
  ::close(ends[1]);
  RunResult run;
  std::array<char, 65536> piece;
  for (ssize_t got; (got = ::read(ends[0], piece.data(), piece.size())) > 0;) {
    run.out.append(piece.data(), static_cast<std::size_t>(got));
  }
  ::close(ends[0]);
  const int status = end_of(child);
  if (WIFEXITED(status)) run.status = WEXITSTATUS(status);
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
