// opening: what opening and building a file have in common.
#pragma once

#include <string>

#include "isam/base/current.h"

namespace isam {

// Whether issetsu() has made every open exclusive.
extern bool issingleuser;

// Whether a pair is opened although a process has left its mark there: for recovery.
extern bool opens_marked;

// The lock mode that the high byte of a mode means, 0 when it means none.
[[nodiscard]] int lock_mode_of(int mode);

// Frees an open that could not be had, with its open lock and semaphore: -1, iserrno stays, and the
// status characters say so.
int abandon_open(Open& open);

// Tells the system that the pair is read and written at random.
void advise_random(const OpenPair& file);

// Sets what the open pair says of lengths, node size and duplicate numbers from the dictionary
// copy. A record that other opens of the process use must say the same already: 0, or -1 with 105
// and nothing changed.
[[nodiscard]] int adopt_dictionary();

// As isbuild(), with nodes of `node` bytes, kMinStoredNodeSize + 1 to kMaxStoredNodeSize. The
// caller has called know_process().
[[nodiscard]] int build_pair(const char* name, int reclen, keydescr& key, int mode, int node);

// Gives a pair another name: 0, or -1 with the system's error and the pair under its old one, as
// far as the system lets it back.
int move_whole_pair(const std::string& from, const std::string& to);

// Removes both files of a pair, as far as they can go.
void remove_pair(const std::string& name);

}  // namespace isam
