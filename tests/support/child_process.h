// child_process: work in a process of its own, a copy of the test's.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

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

}  // namespace testing_support
