// obstacle: whether a copy of an index file can take its place.
#pragma once

#include <string>

namespace checker {

// The path of the file itself, past symbolic links. Where the system cannot tell it (too long, or
// no file there), links in the last part of the path are followed, and others may stay in it.
[[nodiscard]] std::string real_path(std::string path);

// Why another file cannot take the place of an index, open as `fd` and found at its real_path(), as
// an errno; 0 when nothing is known to be in the way.
[[nodiscard]] int obstacle(int fd, const std::string& index);

// Whether an error in making a copy leaves the index itself fit to be changed.
[[nodiscard]] bool leaves_index_usable(int error);

}  // namespace checker
