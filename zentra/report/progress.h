// progress: how far a run is, for whoever watches.
//
// On a terminal it stands on one line of standard error, which is rewritten. SIGUSR1 asks for one
// line, wherever standard error leads.
#pragma once

#include <cstdint>
#include <string_view>

namespace zentra {

// From now on passes of the checks tell how far they are, and SIGUSR1 asks.
void start_progress();
// What follows concerns pair `number` of `pairs`.
void progress_of_pair(int number, int pairs);
// Shows the state when it is time or was asked for. `total` 0: there is nothing to count.
void show_progress(std::string_view pass, std::int64_t done, std::int64_t total, double seconds);
// Takes the line off the screen, if one is there.
void erase_progress();
// In a process that works for another one, which shows how far all are.
void stop_showing();

}  // namespace zentra
