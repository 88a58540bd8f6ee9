// resize: an index file with nodes of 1024 bytes in place of one with another size.
//
// Keeps   the old index file under the second name ".IDX", whatever happens
// Gives   a new index file with the dictionary and the key descriptions alone; the check that
//         follows in the same run remakes the rest from the data file
// Never   touches the pair when the descriptions could not be carried over
#pragma once

#include <string>

#include "checker/check.h"

namespace checker {

// Whether there is an index file, and no file yet with the second name; else says so.
[[nodiscard]] bool can_be_kept(Check& check, const std::string& name);

// Needs the pair current and locked. 0, or -1 with why printed or in iserrno.
int resize(Check& check, const std::string& name);

// At the end of the check: puts the name of the audit trail, which the new file lacks, where the
// dictionary says that it stands.
void write_audit_node(Check& check);

}  // namespace checker
