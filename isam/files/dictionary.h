// dictionary: the first bytes of an index file, read for each call and written when it has changed.
#pragma once

namespace isam {

// Reads the dictionary into the current open pair and tells whether it is one: 0, or -1 with
// 105 (not a dictionary, or not whole), 171 (another format) or the system's error.
int dictread();
// Writes the dictionary copy and clears its changed flag: 0, or -1 with iserrno.
int dictwrite();

}  // namespace isam
