// closing: what the close of an open leaves behind.
#pragma once

#include "isam/base/current.h"

namespace isam {

// Writes what an open has delayed and gives its locks back: 0, or -1 when something could not be
// written.
int close_open(Open& open);

// Closes an open, or inside a transaction keeps it until that ends; one that was kept closes for
// good. 0, or -1 with iserrno.
int close_in_use(Open& open);

// Closes what a transaction keeps of the file of exclusive open `isfd`, as far as it has changed
// nothing through it: before a change that only a single open may make.
void close_kept_beside(int isfd);

}  // namespace isam
