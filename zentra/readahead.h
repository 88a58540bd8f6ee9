// readahead: brings a file into the page cache, so that what is done under a lock is short.
#pragma once

namespace zentra {

// Reads what is not there yet. No more than what fits into half of the memory: the rest would only
// push the beginning out again. Shows the progress; failures are left to who reads next.
void read_ahead(int fd);

}  // namespace zentra
