// resize: an index file with nodes of 1024 bytes in place of one with another size.
//
// Keeps   the old index file under the second name ".IDX", whatever happens
// Gives   a new index file with the dictionary and the key descriptions alone; the check that
//         follows in the same run remakes the rest from the data file
// Never   touches the pair when the descriptions could not be carried over
#pragma once

#include <string>

namespace checker {

// 0, or -1 after printing why.
int resize(const std::string& name);

}  // namespace checker
