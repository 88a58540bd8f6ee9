// sharedpairs: which of several processes works on which pair, and what it was about to tell.
//
// Memory that a process has in common with those that it forks. They take the pairs in their order,
// each by one store, so that whoever dies leaves none behind that was not taken by anybody.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>

#include "zentra/command/heldoutput.h"
#include "zentra/command/pairrunner.h"

namespace zentra {

// A pair that a worker has finished, and where its report is.
struct Finished {
  std::size_t pair = 0;
  Outcome outcome{};
  HeldPart part{};
};

// What one worker is about to tell: it stays when the worker dies before it does.
class SharedFinish {
 public:
  SharedFinish();
  SharedFinish(const SharedFinish&) = delete;
  SharedFinish& operator=(const SharedFinish&) = delete;
  ~SharedFinish();

  void announce(const Finished& finished);
  // None where the last one that was announced is another pair.
  [[nodiscard]] std::optional<Finished> of(std::size_t pair) const;

 private:
  struct Shared {
    Finished finished{};
    std::atomic<std::int64_t> announced = -1;  // the pair
  };

  Shared* shared_;
};

class SharedPairs {
 public:
  explicit SharedPairs(std::size_t count);
  SharedPairs(const SharedPairs&) = delete;
  SharedPairs& operator=(const SharedPairs&) = delete;
  ~SharedPairs();

  // The next pair that is nobody's is `taker`'s now (a positive number); none when all are taken.
  std::optional<std::size_t> take(std::int32_t taker);
  [[nodiscard]] bool is_any_left() const { return next_->load() < takers_.size(); }
  // Who has taken it; 0: nobody.
  [[nodiscard]] std::int32_t taker_of(std::size_t pair) const { return takers_[pair]; }

 private:
  using Place = std::atomic<std::uint32_t>;
  using Taker = std::atomic<std::int32_t>;
  static_assert(Place::is_always_lock_free && Taker::is_always_lock_free);

  Place* next_;  // all before it are taken
  std::span<Taker> takers_;
};

}  // namespace zentra
