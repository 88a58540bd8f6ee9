// nulldevice: a program started with closed descriptors never takes a file of its own for standard
// input, output or error.
#pragma once

namespace common {

// Opens the null device on each of the descriptors 0 to 2 that is closed. To be called before
// anything else is opened.
void fill_standard_descriptors();

}  // namespace common
