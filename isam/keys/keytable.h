// keytable: the key descriptions of the current file, at hand.
//
// Gives   the stored chain of descriptions as an array, read again only after the file's pages
//         were forgotten or the chain was changed
#pragma once

#include <vector>

#include "isam/base/current.h"

namespace isam {

// The file's descriptions in index order; null with iserrno when the chain is damaged.
[[nodiscard]] const std::vector<keydescr>* file_keys();

}  // namespace isam
