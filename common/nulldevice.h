// nulldevice: what a program does first, so that no file it opens gets the number of standard
// input, output or error, though it was started with one of these closed.
#pragma once

namespace common {

// Opens the null device on each of the descriptors 0 to 2 that is closed. To be called before
// anything else is opened.
void fill_standard_descriptors();

}  // namespace common
