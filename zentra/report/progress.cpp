#include "zentra/report/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>

#include "checker/progress.h"

namespace zentra {
namespace {

using std::chrono::steady_clock;

constexpr auto kQuietStart = std::chrono::seconds(1);
constexpr auto kInterval = std::chrono::milliseconds(200);

volatile std::sig_atomic_t is_asked = 0;

struct Screen {
  bool is_terminal = false;
  bool has_line = false;
  int number = 1;
  int pairs = 1;
  steady_clock::time_point next{};
} screen;

std::string line_of(std::string_view pass, std::int64_t done, std::int64_t total, double seconds) {
  std::string line;
  if (screen.pairs > 1) line = fmt::format("pair {} of {}: ", screen.number, screen.pairs);
  line += pass;
  if (total <= 0) return line;
  const double share = static_cast<double>(done) / static_cast<double>(total);
  line += fmt::format(": {}%", static_cast<int>(100 * share));
  if (seconds <= 0) return line;
  line += fmt::format(", {:.0f} a second", static_cast<double>(done) / seconds);
  // Below one percent too little is done to tell how fast it goes.
  if (share >= 0.01) line += fmt::format(", about {:.0f} s left", seconds / share - seconds);
  return line;
}

}  // namespace

void start_progress() {
  screen.is_terminal = ::isatty(STDERR_FILENO) == 1;
  screen.next = steady_clock::now() + kQuietStart;
  struct sigaction action {};
  action.sa_handler = [](int) { is_asked = 1; };
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGUSR1, &action, nullptr);
  checker::Progress::show_by([](const checker::Progress::State& state) {
    show_progress(state.pass, state.done, state.total, state.seconds);
  });
}

void progress_of_pair(int number, int pairs) {
  screen.number = number;
  screen.pairs = pairs;
}

void show_progress(std::string_view pass, std::int64_t done, std::int64_t total, double seconds) {
  const bool asked = is_asked != 0;
  if (!asked && (!screen.is_terminal || steady_clock::now() < screen.next)) return;
  const std::string line = line_of(pass, done, total, seconds);
  if (asked) {
    is_asked = 0;
    erase_progress();
    fmt::print(stderr, "zentra: {}\n", line);
  } else {
    screen.next = steady_clock::now() + kInterval;
    fmt::print(stderr, "\r{}\033[K", line);
    screen.has_line = true;
  }
  std::fflush(stderr);
}

void erase_progress() {
  if (!screen.has_line) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  screen.has_line = false;
}

void stop_showing() {
  screen.is_terminal = false;
  std::signal(SIGUSR1, SIG_IGN);
}

}  // namespace zentra
