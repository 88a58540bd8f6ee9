// descriptor: opens single files. A process that is short of descriptors closes what it can do
// without (vclose) and tries once more.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>

#include "common/holders.h"
#include "isam/base/errors.h"

namespace isam {

// `permissions` are those of a file that the flags create. Empty with errno when it cannot be
// opened.
[[nodiscard]] common::FileHold open_with_retry(const std::string& path, int flags,
                                               mode_t permissions = 0);
// The same for a file of a pair: empty with iserrno and iserrio.
[[nodiscard]] common::FileHold open_of_pair(const std::string& path, int flags, FileKind kind);

struct Opened {
  common::FileHold fd;  // empty: neither could be had, with iserrno and iserrio
  int access;           // O_RDWR or O_RDONLY
};

// Opens a file of a pair to read and write it, or to read it only where that is enough and the
// system refuses the writing. To be called with iserrno 0: it is cleared between the two attempts.
[[nodiscard]] Opened open_to_use(const std::string& path, FileKind kind, bool reading_is_enough);

// Creates a file that must not exist, with permissions 0664 as far as the process's mask allows: 0,
// or -1 with iserrno and iserrio (0x21 to 0x23, by `kind`). It is closed again.
int makefile(const std::string& path, FileKind kind);

}  // namespace isam
