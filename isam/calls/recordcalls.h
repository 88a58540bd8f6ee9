// recordcalls: what the public record calls have in common.
#pragma once

#include "isam/base/errors.h"

namespace isam {

// The result of a record call that could not enter. An open without the access needed is told by
// the kind of call: '7' reading, '8' writing, '9' changing.
inline int refused_access(char kind) {
  if (iserrno == kNotOpen && isstat2 == '4') {
    isstat2 = '0';
    isstat3 = '4';
    isstat4 = kind;
  }
  return -1;
}

}  // namespace isam
