// progress: how far a long pass has come, for an operator who watches.
//
// Shown on standard error, on one line that is rewritten, when it is allowed, standard error is a
// terminal and a second has gone by since the run's first pass began. The line is erased before
// anything is printed on standard output, which may be the same terminal.
//
//   Progress::allow();
//   Progress::begin_pair(3, 200);
//   Progress progress("Checking data records", last);
//   for (...) { progress.at(record); ... }
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

namespace checker {

class Progress {
 public:
  // Before this call nothing is ever shown.
  static void allow();
  // How far a pass has come, for a program that shows it in a way of its own.
  struct State {
    std::string_view pass;
    std::int64_t done;
    std::int64_t total;
    double seconds;  // since the pass began
  };
  // From now on `show` is called every few thousand records or items, and nothing else is shown.
  static void show_by(void (*show)(const State& state));
  // What follows concerns pair `number` of `pairs`; the line tells so when there are several.
  static void begin_pair(int number, int pairs);

  // A pass of this name begins; `total`: what there is to do in it, an estimate perhaps. The name
  // must outlive it, as a literal does.
  Progress(std::string_view pass, std::int64_t total);
  ~Progress() { erase(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // `done` of the total are done.
  void at(std::int64_t done) {
    if (done >= next_look_) look(done);
  }

  // Takes the line off the screen, if one is there.
  static void erase();

 private:
  using Clock = std::chrono::steady_clock;

  // Looks at the clock and shows the line when it is time.
  void look(std::int64_t done);
  void show(std::int64_t done, Clock::time_point now) const;

  std::string_view pass_;
  std::int64_t total_;
  std::int64_t next_look_;  // the count at which the clock is looked at; INT64_MAX: never
  Clock::time_point start_;
  Clock::time_point next_show_;
};

}  // namespace checker
