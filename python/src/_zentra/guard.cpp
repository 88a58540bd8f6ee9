#include "guard.h"

#include <pthread.h>

#include "isam.h"

namespace zentra_module {
namespace {

std::mutex guard;
int forks = 0;

}  // namespace

Failed::Failed(std::string pair)
    : std::runtime_error(isexplain()),
      name(std::move(pair)),
      code(iserrno),
      place(iserrio),
      status({isstat1, isstat2, isstat3, isstat4}) {}

Inherited::Inherited(const std::string& pair) : Failed(pair, ISENOTOPEN, "inherited") {}

std::mutex& library_guard() { return guard; }

int generation() { return forks; }

void watch_forks() {
  ::pthread_atfork([] { guard.lock(); }, [] { guard.unlock(); },
                   [] {
                     ++forks;
                     guard.unlock();
                   });
}

}  // namespace zentra_module
