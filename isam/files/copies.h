// copies: other copies of this library in the process, an application's and a plugin's for example.
//
// A process that closes any descriptor of a file loses all the locks that it has on it: two copies
// that both had a pair open would lose each other's locks, and two writers with one process number
// would spoil a log. So each copy keeps a table of the files that it has open, in memory where the
// others find it, and none opens what another has.
//
// Keeps   K1 the tables are found whatever became of symbol names: a note in the program file or
//            shared object that a copy is part of leads to its table
//         K2 a table counts only in the process whose number it bears: in a child made by fork not
//            before its copy has opened something there
#pragma once

#include <sys/types.h>

namespace isam {

// This copy has a file open from now on, or not any more.
void note_open(dev_t device, ino_t inode);
void note_closed(dev_t device, ino_t inode);

// Whether another copy has it open.
[[nodiscard]] bool another_copy_has(dev_t device, ino_t inode);

}  // namespace isam
