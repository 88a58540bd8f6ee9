// readahead: brings a pair into the page cache, so that what is done under a lock is short.
//
// Needs   the current pair
// Never   reads nodes that the dictionary does not count, or holes, or more than fits into memory
#pragma once

namespace zentra {

void read_ahead();

// Whether the data file is larger than half of the memory: records are better read in their order.
[[nodiscard]] bool data_exceeds_cache();

}  // namespace zentra
