#include "zentra/transfer/inorder.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <initializer_list>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace zentra {
namespace {

constexpr int kMostThreads = 4;  // taking and using are one after the other anyway

// While it exists, new threads leave signals to those that there were: all but the signals that a
// thread causes itself.
class SignalsForOthers {
 public:
  SignalsForOthers() {
    sigset_t all;
    ::sigfillset(&all);
    for (const int own :
         {SIGBUS, SIGSEGV, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT, SIGPIPE, SIGXFSZ}) {
      ::sigdelset(&all, own);
    }
    ::pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  SignalsForOthers(const SignalsForOthers&) = delete;
  SignalsForOthers& operator=(const SignalsForOthers&) = delete;
  ~SignalsForOthers() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_{};
};

class Team {
 public:
  // What one thread does, until there is no more.
  void work(const Steps& steps) {
    try {
      std::uint64_t turn = 0;
      while (take(steps, turn)) {
        steps.work();
        if (!await(turn)) return;
        const bool wants_more = steps.use();
        if (!wants_more) stop({});
        pass_on(turn + 1);
      }
    } catch (...) {
      stop(std::current_exception());
    }
  }

  void rethrow() const {
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  bool take(const Steps& steps, std::uint64_t& turn) {
    const std::lock_guard guard(taking_);
    if (has_ended_) return false;
    has_ended_ = !steps.take();
    turn = taken_;
    if (!has_ended_) ++taken_;
    return !has_ended_;
  }
  // False where nothing is wanted any more.
  bool await(std::uint64_t turn) {
    std::unique_lock guard(turns_);
    turn_passed_.wait(guard, [&] { return turn_ == turn || is_stopped_; });
    return !is_stopped_;
  }
  void pass_on(std::uint64_t turn) {
    {
      const std::lock_guard guard(turns_);
      turn_ = turn;
    }
    turn_passed_.notify_all();
  }
  void stop(std::exception_ptr why) {
    {
      const std::scoped_lock guard(taking_, turns_);
      has_ended_ = true;
      is_stopped_ = true;
      if (!failure_) failure_ = std::move(why);
    }
    turn_passed_.notify_all();
  }

  std::mutex taking_;
  std::uint64_t taken_ = 0;
  bool has_ended_ = false;  // nothing is taken any more
  std::mutex turns_;
  std::condition_variable turn_passed_;
  std::uint64_t turn_ = 0;   // whose results are used now
  bool is_stopped_ = false;  // nor are other results used
  std::exception_ptr failure_;
};

// As many as are to be had.
void start_others(Team& team, int count, const std::function<Steps()>& make,
                  std::vector<std::jthread>& to) {
  if (count <= 0) return;
  const SignalsForOthers others_handle_them;
  try {
    while (std::cmp_less(to.size(), count)) {
      to.emplace_back([&team, steps = make()] { team.work(steps); });
    }
  } catch (const std::system_error&) {
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace

void run_in_order(int threads, const std::function<Steps()>& make) {
  Team team;
  const Steps own = make();
  {
    std::vector<std::jthread> others;
    start_others(team, threads - 1, make, others);
    team.work(own);
  }
  team.rethrow();
}

int threads_for(std::int64_t bytes) {
  constexpr std::int64_t kLittle = std::int64_t{8} << 20;
  cpu_set_t usable;
  if (bytes < kLittle || ::sched_getaffinity(0, sizeof usable, &usable) != 0) return 1;
  return std::min(CPU_COUNT(&usable), kMostThreads);
}

}  // namespace zentra
