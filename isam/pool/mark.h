// mark: tells whoever opens a pair that a process was to write more to it and did not.
//
// An exclusive open keeps changes back. Before the first of them the mark goes into node 1, behind
// the dictionary, and leaves it when all are written: one that is met at an open is that of a
// process which was killed, or could not write, and the files do not agree with one another.
//
// Keeps   a process clears its own mark only; a program that mends pairs clears any, and says in
//         the open pair (MarkState::kUnneeded) that it sees to the mark itself
// Never   touches other bytes that stand in its place
#pragma once

#include "isam/base/current.h"

namespace isam {

// set_mark() and clear_mark() keep the pair's MarkState true, unless it is kUnneeded; remove_mark()
// leaves it as it is.

// Sets this process's mark: 0, or -1 with the system's error. Unless the state is kClear it looks
// first: where a mark stands, whosever it is, or other bytes, it writes nothing and gives 0 too.
int set_mark(OpenPair& file);
// Clears the mark that this process has set, if it has: 0, or -1 with the system's error.
int clear_mark(OpenPair& file);
// Clears the mark of whatever process: 0, or -1 with the system's error.
int remove_mark(OpenPair& file);
// Looks whether the file bears the mark of any process: 1 or 0, -1 with the system's error. Sets
// MarkState to kClear when nothing stands there, else to kNotOurs, also when the mark is this
// process's.
[[nodiscard]] int find_mark(OpenPair& file);

}  // namespace isam
