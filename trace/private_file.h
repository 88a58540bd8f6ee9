// private_file: opens a file to append to that no other user can have put in its place.
#pragma once

#include <string>

#include "common/holders.h"

namespace trace {

// Opens `path` for appending, a new file readable and writable by the user alone. The holder is
// empty when the system refuses, and for a file that belongs to another user, has a second name, is
// no regular file, or when `path` names another user's symbolic link or one that names a further
// link. Links among its folders are followed, whoever made them.
[[nodiscard]] common::FileHold open_private(const std::string& path);

}  // namespace trace
