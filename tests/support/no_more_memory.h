// no_more_memory: a process that gets no more memory.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>

namespace testing_support {

// While it lives the system gives the process no more memory; under the address sanitizer a little,
// without which its own allocator ends the process.
class NoMoreMemory {
 public:
  NoMoreMemory() {
    ::getrlimit(RLIMIT_AS, &before_);
    const struct rlimit none { most(), before_.rlim_max };
    ::setrlimit(RLIMIT_AS, &none);
  }
  NoMoreMemory(const NoMoreMemory&) = delete;
  NoMoreMemory& operator=(const NoMoreMemory&) = delete;
  ~NoMoreMemory() { ::setrlimit(RLIMIT_AS, &before_); }

 private:
  static rlim_t most() {
#ifdef __has_feature
#if __has_feature(address_sanitizer)
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<rlim_t>(::getpagesize()) + (1 << 20);
#endif
#endif
    return 1;
  }

  struct rlimit before_ {};
};

}  // namespace testing_support
