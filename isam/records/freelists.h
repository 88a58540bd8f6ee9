// freelists: taking and returning index nodes and data record numbers.
//
// Each list is a chain of nodes of up to (N - 10) / 4 entries, the newest node at the head.
// Numbers are handed out last in, first out; when a list is empty the highest number in use is
// raised instead, and returning the highest number just lowers it.
//
// Needs   the current file with its dictionary loaded, exclusively held
// Keeps   L1 a list's head and the entry or link used are checked before anything changes: 105
//            leaves the pair as it was
//         L2 an emptied node of the index list is itself handed out; one of the data list goes
//            back to the index list
//         L3 a number that would leave a gap at the end of its file, more than what unwritten pages
//            explain, is not given out: 105
//         L4 a node that looks like a storage page with records' bytes in it is not handed out,
//            whatever the list says: after a process was killed, a page may be listed and in use.
//            It leaves the list, which could make it its head and clear it
// Never   writes a page itself: changes are delayed writes, and the dictionary copy is marked
#pragma once

#include <cstdint>
#include <vector>

namespace isam {

enum class FreeList { kNodes, kRecords };

// A number to use, or -1 with iserrno (105 for a damaged list).
[[nodiscard]] std::int32_t allocrec(FreeList list);

// Returns a number: 0, or -1 with iserrno.
int freerec(std::int32_t number, FreeList list);

// Returns a node after a failure, whose reason stays in iserrno.
void give_node_back(std::int32_t node);

// Takes a certain record number out of the free ones: 0, or -1 with 119 when it is not free. One
// past the end makes the file longer, and the numbers in between are listed in ascending order.
int getdatrec(std::int32_t number);

// Numbers on the list of free records; -1 with 105 for a damaged list.
[[nodiscard]] std::int32_t free_records_listed();

// Takes out of `numbers` those that are free already, or in use: the rest can be returned. 0, or -1
// with iserrno.
[[nodiscard]] int drop_returned(std::vector<std::int32_t>& numbers);

// Whether the list of free nodes can be drawn from: every node of it is one, and the chain ends.
[[nodiscard]] bool free_nodes_serve();

}  // namespace isam
