// private_file: a file that only its user appends to.
#pragma once

#include <string>

#include "common/holders.h"

namespace trace {

// Opens `path` for appending, a new file readable and writable by the user alone. No file is opened
// that belongs to another user, has a second name, is no regular file, or is reached through
// another user's symbolic link: then, and when the system refuses, the holder is empty.
[[nodiscard]] common::FileHold open_private(const std::string& path);

}  // namespace trace
