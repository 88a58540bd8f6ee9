// common_memory: memory that a process and those it starts afterwards have in common.
#pragma once

#include <sys/mman.h>

#include <new>

namespace testing_support {

template <typename T>
class Common {
 public:
  Common()
      : at_(::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
    if (at_ == MAP_FAILED) throw std::bad_alloc();
    new (at_) T{};
  }
  ~Common() { ::munmap(at_, sizeof(T)); }
  Common(const Common&) = delete;
  Common& operator=(const Common&) = delete;
  T& operator*() const { return *static_cast<T*>(at_); }
  T* operator->() const { return static_cast<T*>(at_); }

 private:
  void* at_;
};

}  // namespace testing_support
