#include "zentra/sharedpairs.h"

#include <sys/mman.h>

#include <memory>
#include <new>

namespace zentra {
namespace {

std::size_t bytes_for(std::size_t pairs) {
  return (pairs + 1) * sizeof(std::atomic<std::uint32_t>);
}

}  // namespace

SharedPairs::SharedPairs(std::size_t count) {
  static_assert(sizeof(Place) == sizeof(Taker));
  void* const memory =
      ::mmap(nullptr, bytes_for(count), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  next_ = std::construct_at(static_cast<Place*>(memory));
  Taker* const takers = reinterpret_cast<Taker*>(next_ + 1);
  std::uninitialized_value_construct_n(takers, count);
  takers_ = {takers, count};
}

SharedPairs::~SharedPairs() { ::munmap(next_, bytes_for(takers_.size())); }

std::optional<std::size_t> SharedPairs::take(std::int32_t taker) {
  for (std::uint32_t at = next_->load(); at < takers_.size(); ++at) {
    std::int32_t nobody = 0;
    const bool is_taken = takers_[at].compare_exchange_strong(nobody, taker);
    // Behind what others have taken, some of whom may not have come to tell.
    next_->store(at + 1);
    if (is_taken) return at;
  }
  return std::nullopt;
}

}  // namespace zentra
