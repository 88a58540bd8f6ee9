// child_process: work in a process of its own, a copy of the test's.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace testing_support {

// Runs `work` in a process of its own, which does not live for ever.
template <typename Work>
pid_t start_process(Work work) {
  const pid_t child = ::fork();
  if (child != 0) return child;
  ::alarm(60);
  work();
  ::_exit(0);
}

// The status that waitpid gives: 0 for a process that ended by itself, a signal's number, ...
inline int end_of(pid_t process) {
  int status = -1;
  ::waitpid(process, &status, 0);
  return status;
}

// Whether this process has a byte of a file locked, as another one sees it.
inline bool byte_locked(const std::string& path, off_t at) {
  return end_of(start_process([&] {
           struct flock lock {};
           lock.l_type = F_WRLCK;
           lock.l_start = at;
           lock.l_len = 1;
           const int fd = ::open(path.c_str(), O_RDWR);
           ::_exit(::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type == F_UNLCK ? 0 : 1);
         })) != 0;
}

}  // namespace testing_support
