// resize: an index file with nodes of 1024 bytes in place of one with another size.
//
// Keeps   the old index file under the second name ".IDX", also when a later step fails
// Gives   a new index file with the dictionary and the key descriptions alone; the check that
//         follows in the same run remakes the rest from the data file
// Never   replaces the index file when the descriptions cannot be carried over
#pragma once

#include <string>

#include "checker/check.h"

namespace checker {

// Whether there is an index file, and no file yet with the second name; else says so.
[[nodiscard]] bool can_be_kept(Check& check, const std::string& name);

// Replaces the index file of the pair of this base name, which is current and locked, and remembers
// the trail's name in `check`. 0, or -1 with why told to the listener or in iserrno.
int resize(Check& check, const std::string& name);

// At the end of the check: puts the name of the audit trail, which the new file lacks, into the
// node in which it stood, where the dictionary still names that.
void write_audit_node(Check& check);

}  // namespace checker
