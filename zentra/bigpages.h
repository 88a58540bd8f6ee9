// bigpages: storage pages that one piece of a record fills, and of which damage has made something
// else. What is left of such a page, and the length of the record that goes on through it, tell
// what it was.
//
// Needs   the current pair; for mend_big_pages() its index a copy
#pragma once

#include <cstdint>
#include <map>

#include "zentra/badrecords.h"

namespace zentra {

// With the piece that each goes on with; 0: it is the last one of its record.
using BigPages = std::map<std::int32_t, std::int32_t>;

// Takes the records off `bad` that can be read once some pages are mended: how many. Gives those
// pages.
[[nodiscard]] std::int64_t spare_mendable(BadRecords& bad, BigPages& pages);
void mend_big_pages(const BigPages& pages);

}  // namespace zentra
