// closing: what the close of an open leaves behind.
#pragma once

#include "isam/base/current.h"

namespace isam {

// Logs that the current open closes, writes what it has delayed and gives its locks back: 0, or -1
// with iserrno when something could not be written.
int close_open(Open& open);

// Closes an open, or inside a transaction keeps it until that ends; one that was kept closes for
// good. 0, or -1 with iserrno.
int close_in_use(Open& open);

// Before a change that exclusive open `isfd` may make only as the single open of its file: closes
// opens of the file that a transaction keeps without having changed anything through them.
void close_kept_beside(int isfd);

}  // namespace isam
