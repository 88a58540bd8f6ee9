// keytable: the key descriptions of the current file, at hand.
//
// Gives   the stored chain of descriptions as an array, read again only after the file's pages
//         were forgotten or the chain was changed
#pragma once

#include <vector>

#include "isam/base/current.h"

namespace isam {

// The file's descriptions in index order; null with iserrno, 105 when the chain is damaged or one
// of its indexes cannot be worked with. The array lasts until it is read again.
[[nodiscard]] const std::vector<keydescr>* file_keys();

}  // namespace isam
