// plainfile: a file of the operator's, opened to be read only.
#pragma once

#include <cstdint>
#include <string>

#include "common/holders.h"

namespace recover {

struct PlainFile {
  common::FileHold fd;
  std::int64_t size = 0;  // bytes, when it was opened
};

// Opens a regular file without waiting for anybody; nothing in it, after a complaint, when that
// fails or it is not a regular file.
[[nodiscard]] PlainFile open_plain(const std::string& path);

// Complains that `what` could not be done to `name`, for the reason in errno.
void complain_errno(const std::string& what, const std::string& name);

}  // namespace recover
