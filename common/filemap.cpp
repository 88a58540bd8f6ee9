#include "common/filemap.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "common/io.h"

namespace common {
namespace {

// Which bytes of a mapping are being copied, for the handler; begin and end are equal while none
// are.
volatile std::uintptr_t copy_begin = 0;
volatile std::uintptr_t copy_end = 0;
volatile std::sig_atomic_t page_missing = 0;
std::uintptr_t page_size = 0;
struct sigaction handler_before {};

// Where a page of the file cannot be had, puts a page of zeros into the mapping, so that the copy
// can go on to its end; page_missing then tells that the copy is worth nothing. False when the
// address is not one being copied, so that the fault is somebody else's, or no page can be had.
bool stand_in_for_page(std::uintptr_t at) {
  if (at < copy_begin || at >= copy_end) return false;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the address of the fault
  void* const page = reinterpret_cast<void*>(at & ~(page_size - 1));
  if (::mmap(page, page_size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != page) {
    return false;
  }
  page_missing = 1;
  return true;
}

void on_bus_error(int number, siginfo_t* info, void* context) {
  const int error = errno;
  if (info->si_code > 0 && stand_in_for_page(reinterpret_cast<std::uintptr_t>(info->si_addr))) {
    errno = error;
    return;
  }
  if ((handler_before.sa_flags & SA_SIGINFO) != 0) {
    handler_before.sa_sigaction(number, info, context);
  } else if (handler_before.sa_handler != SIG_DFL && handler_before.sa_handler != SIG_IGN) {
    handler_before.sa_handler(number);
  } else if (info->si_code > 0 || handler_before.sa_handler == SIG_DFL) {
    // Ends the process, as it would have without this handler: a signal that was sent (its code is
    // not above 0) may be ignored, a fault may not.
    ::signal(number, SIG_DFL);
    ::raise(number);
  }
}

// Puts the handler in place at the first call. Whether a missing page will come to it: the program
// may have replaced it since, and it is not put in place a second time.
bool handler_is_in_place() {
  struct sigaction now {};
  if (::sigaction(SIGBUS, nullptr, &now) != 0) return false;
  static bool installed = false;
  if (installed) return (now.sa_flags & SA_SIGINFO) != 0 && now.sa_sigaction == on_bus_error;
  struct sigaction ours {};
  ours.sa_sigaction = on_bus_error;
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
  ::sigemptyset(&ours.sa_mask);
  page_size = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  handler_before = now;
  installed = ::sigaction(SIGBUS, &ours, nullptr) == 0;
  return installed;
}

}  // namespace

FileMap& FileMap::operator=(FileMap&& other) noexcept {
  std::swap(pages_, other.pages_);
  std::swap(mapped_, other.mapped_);
  std::swap(known_, other.known_);
  std::swap(reads_, other.reads_);
  std::swap(cold_, other.cold_);
  std::swap(usable_, other.usable_);
  return *this;
}

void FileMap::forget() {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): mapped to be read only
  if (pages_ != nullptr) ::munmap(const_cast<Byte*>(pages_), static_cast<std::size_t>(mapped_));
  pages_ = nullptr;
  mapped_ = 0;
  known_ = 0;
  reads_ = 0;
  cold_ = {};
  usable_ = true;
}

// Maps the file from its start anew, with room for it to grow: twice its size, or 1 MiB if that is
// more. Nothing is read from the room before the file has come to it.
void FileMap::map(int fd) {
  constexpr std::int64_t kLeast = std::int64_t{1} << 20;
  forget();
  std::int64_t size = 0;
  static_cast<void>(find_end(fd, size));
  usable_ = size > 0 && handler_is_in_place();
  if (!usable_) return;
  const std::int64_t room = std::max(2 * size, kLeast);
  const auto length = static_cast<std::size_t>(room);
  void* const pages = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0);
  usable_ = pages != MAP_FAILED;
  if (!usable_) return;
  ::madvise(pages, length, MADV_RANDOM);
  pages_ = static_cast<const Byte*>(pages);
  mapped_ = room;
  known_ = size;
}

// From here to end_copy() the handler stands in for missing pages of these bytes.
void FileMap::begin_copy(ConstBytes from) {
  copy_begin = reinterpret_cast<std::uintptr_t>(from.data());
  copy_end = copy_begin + from.size();
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

// False when a page was missing: what was copied is anything, and the file is not mapped again
// before forget() is called.
bool FileMap::end_copy() {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  copy_end = copy_begin;
  if (page_missing == 0) return true;
  page_missing = 0;
  forget();
  usable_ = false;
  return false;
}

// Copies bytes that covers() has said yes to.
bool FileMap::copy(Bytes to, std::int64_t offset) {
  const ConstBytes from{pages_ + offset, to.size()};
  begin_copy(from);
  std::memcpy(to.data(), from.data(), from.size());
  return end_copy();
}

bool FileMap::has(ConstBytes bytes, std::int64_t offset) {
  if (!covers(bytes.size(), offset)) return false;
  const ConstBytes from{pages_ + offset, bytes.size()};
  begin_copy(from);
  const bool same = std::memcmp(from.data(), bytes.data(), bytes.size()) == 0;
  return end_copy() && same;
}

// copy(), with a look at whether it waits for a disk: then what lies around it is asked for.
bool FileMap::look_at_copy(int fd, Bytes to, std::int64_t offset) {
  const DiskWait wait;
  const bool copied = copy(to, offset);
  ask_system_for(fd, cold_.note(offset, known_, wait.seen(cold_.faults)));
  return copied;
}

void FileMap::look_again(int fd) {
  if (!usable_ || system_calls().pread != ::pread) return;
  std::int64_t size = 0;
  if (find_end(fd, size) != 0) return;
  if (size > mapped_) return map(fd);
  known_ = std::max(known_, size);
}

// Reads by a system call. A read that got all it asked for shows how far the file goes at least;
// after kReadsBeforeMapping of them beyond the mapping (at first there is none) it is mapped anew.
ssize_t FileMap::call(int fd, Bytes to, std::int64_t offset) {
  const std::int64_t end = offset + static_cast<std::int64_t>(to.size());
  const ssize_t got = read_at(fd, to, offset);
  if (!usable_ || system_calls().pread != ::pread || got != static_cast<ssize_t>(to.size()))
    return got;
  known_ = std::max(known_, end);
  if (end > mapped_ && ++reads_ >= kReadsBeforeMapping) map(fd);
  return got;
}

}  // namespace common
