// plainfile: a file that the operator names, and that is only read.
#pragma once

#include <cstdint>
#include <string>

#include "common/holders.h"

namespace recover {

struct PlainFile {
  common::FileHold fd;
  std::int64_t size = 0;  // bytes, when it was opened
};

// Opens a regular file; a pipe does not make it wait. When the file cannot be opened, or is not
// regular, it complains, and the result has no descriptor.
[[nodiscard]] PlainFile open_plain(const std::string& path);

// Complains: `what` (such as "cannot open"), the quoted name, and the reason in errno.
void complain_errno(const std::string& what, const std::string& name);

}  // namespace recover
