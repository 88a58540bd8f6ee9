// lostpages: storage pages of which damage has made something else. What is left of such a page,
// and the length of the record that goes on through it or ends in it, tell what it was.
//
// Needs   the current pair; for mend_lost_pages() its index a copy
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "checker/check.h"
#include "zentra/repair/badrecords.h"

namespace zentra {

// What the head of a page is to say.
struct PageHead {
  int slots;
  bool is_big;        // one piece fills it
  std::int32_t next;  // the piece that it goes on with; 0: it is the last one of its record
  friend bool operator==(const PageHead&, const PageHead&) = default;
};
// By node.
using LostPages = std::map<std::int32_t, PageHead>;

// Takes the records off `bad` that can be read once some pages are mended, and of which no piece
// belongs to another record. Gives those pages, and the records by ascending number.
void spare_mendable(const checker::Check& check, BadRecords& bad, LostPages& pages,
                    std::vector<std::int32_t>& spared);
void mend_lost_pages(const LostPages& pages);

}  // namespace zentra
