// dictionary: the first bytes of an index file. They are read for each call before which another
// process may have changed them, and written when they have changed.
#pragma once

namespace isam {

// Reads the current file's dictionary into its copy: 0, or -1 with 105 (not a dictionary, not
// whole, or a lock method above 8), 171 (another format, or a lock method from 1 to 7) or the
// system's error. Where the environment has RESETLOCK, any lock method is accepted.
int dictread();
// Writes the dictionary copy and clears its changed flag: 0, or -1 with iserrno.
int dictwrite();

}  // namespace isam
