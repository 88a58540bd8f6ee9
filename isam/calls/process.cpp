#include "isam/calls/process.h"

#include <sys/mman.h>
#include <unistd.h>

#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/files/files.h"
#include "isam/log/logfile.h"

namespace isam {
namespace {

constexpr int kUnknown = 0;

int* marked_page = nullptr;
pid_t owner = 0;  // the process whose opens these are; 0 before the first call

// A page that is zeroes in a child; null where there is no such thing.
int* wiped_page() {
  const auto size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  void* const page =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return nullptr;
  if (::madvise(page, size, MADV_WIPEONFORK) == 0) return static_cast<int*>(page);
  ::munmap(page, size);
  return nullptr;
}

}  // namespace

const int* process_mark = &kUnknown;

void notice_process() {
  const pid_t process = ::getpid();
  if (process == owner) return;  // as at every call where no page is wiped
  if (owner == 0) {
    marked_page = wiped_page();
    if (marked_page != nullptr) process_mark = marked_page;
  } else {
    forget_opens();
    txlog::take_log_over();
    batchflag = 0;
  }
  owner = process;
  if (marked_page != nullptr) *marked_page = 1;
}

}  // namespace isam
