#include "checker/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace checker {
namespace {

using std::chrono::steady_clock;

constexpr auto kQuietStart = std::chrono::seconds(1);
constexpr auto kInterval = std::chrono::milliseconds(200);
constexpr std::int64_t kStep = 4096;  // records or items done between looks at the clock

bool line_is_shown = false;
int pair_number = 1;
int pairs_named = 1;

bool is_allowed = false;

void (*shown_by)(const Progress::State& state) = nullptr;

bool is_wanted() {
  static const bool terminal = ::isatty(STDERR_FILENO) == 1;
  return is_allowed && terminal;
}

steady_clock::time_point run_start() {
  static const steady_clock::time_point start = steady_clock::now();
  return start;
}

}  // namespace

void Progress::allow() { is_allowed = true; }

void Progress::show_by(void (*show)(const State& state)) { shown_by = show; }

void Progress::begin_pair(int number, int pairs) {
  pair_number = number;
  pairs_named = pairs;
}

Progress::Progress(std::string_view pass, std::int64_t total)
    : pass_(pass),
      total_(std::max<std::int64_t>(total, 1)),
      next_look_(shown_by != nullptr || is_wanted() ? 0 : INT64_MAX),
      start_(steady_clock::now()),
      next_show_(run_start() + kQuietStart) {}

void Progress::look(std::int64_t done) {
  next_look_ = done + kStep;
  const Clock::time_point now = steady_clock::now();
  if (shown_by != nullptr) {
    const double seconds = std::chrono::duration<double>(now - start_).count();
    return shown_by({pass_, std::min(done, total_), total_, seconds});
  }
  if (now < next_show_) return;
  next_show_ = now + kInterval;
  show(std::min(done, total_), now);
}

void Progress::show(std::int64_t done, Clock::time_point now) const {
  const double passed = std::chrono::duration<double>(now - start_).count();
  const double share = static_cast<double>(done) / static_cast<double>(total_);
  const int percent = static_cast<int>(100 * share);
  std::fputc('\r', stderr);
  if (pairs_named > 1) std::fprintf(stderr, "pair %d of %d: ", pair_number, pairs_named);
  std::fprintf(stderr, "%.*s: %d%%", static_cast<int>(pass_.size()), pass_.data(), percent);
  // Below one percent too little is done to tell how fast it goes.
  if (percent > 0) {
    std::fprintf(stderr, ", about %.0f s left", passed / share - passed);
  }
  std::fputs("\033[K", stderr);
  std::fflush(stderr);
  line_is_shown = true;
}

void Progress::erase() {
  if (!line_is_shown) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  line_is_shown = false;
}

}  // namespace checker
