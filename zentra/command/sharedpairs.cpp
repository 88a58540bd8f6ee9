#include "zentra/command/sharedpairs.h"

#include <sys/mman.h>

#include <memory>
#include <new>

namespace zentra {
namespace {

std::size_t bytes_for(std::size_t pairs) {
  return (pairs + 1) * sizeof(std::atomic<std::uint32_t>);
}

void* shared_memory(std::size_t size) {
  void* const memory =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  return memory;
}

}  // namespace

SharedFinish::SharedFinish()
    : shared_(std::construct_at(static_cast<Shared*>(shared_memory(sizeof(Shared))))) {}

SharedFinish::~SharedFinish() { ::munmap(shared_, sizeof(Shared)); }

// The pair comes last: until then the worker counts as not having come to it.
void SharedFinish::announce(const Finished& finished) {
  shared_->finished = finished;
  shared_->announced = static_cast<std::int64_t>(finished.pair);
}

std::optional<Finished> SharedFinish::of(std::size_t pair) const {
  if (shared_->announced != static_cast<std::int64_t>(pair)) return std::nullopt;
  return shared_->finished;
}

SharedPairs::SharedPairs(std::size_t count) {
  static_assert(sizeof(Place) == sizeof(Taker));
  next_ = std::construct_at(static_cast<Place*>(shared_memory(bytes_for(count))));
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
