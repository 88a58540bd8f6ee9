// freelists: taking and returning index nodes and data record numbers.
//
// Each list is a chain of nodes of up to (N - 10) / 4 entries, the newest node at the head.
// Numbers are handed out last in, first out; when a list is empty the highest number in use is
// raised instead, and returning the highest number just lowers it (unless lists_numbers is set).
//
// Needs   the current file with its dictionary loaded, exclusively held
// Keeps   L1 a list's head and the entry or link used are checked before anything changes: 105
//            leaves the pair as it was
//         L2 a node of a list that has no entries left is used: of the list of free nodes it is the
//            next node handed out, of the list of free records it becomes a free node
//         L3 allocrec() raises the highest number only to one that the file can have reached: one
//            that lies past the end of the file by more than the pages not yet written explain is
//            refused (105). A dictionary may claim any number, and a page written there would make
//            the file immense
//         L4 in a file of variable length, a node that looks like a storage page with records'
//            bytes in it is not handed out: after a process was killed, a page may be listed and
//            in use. It leaves the list for good, because a list that gets it back could make it
//            the head, which clears it. Behind the last node in use that of an unfinished bulk
//            load tells that no page from there on is in use
// Never   writes a page itself: changes are delayed writes, and the dictionary copy is marked
#pragma once

#include <cstdint>
#include <vector>

namespace isam {

enum class FreeList { kNodes, kRecords };

// A number to use, or -1 with iserrno (105 for a damaged list).
[[nodiscard]] std::int32_t allocrec(FreeList list);

// Returns a number in use: 0, or -1 with iserrno (105 when it is out of range).
int freerec(std::int32_t number, FreeList list);

// Returns a node after a failure, whose reason stays in iserrno.
void give_node_back(std::int32_t node);

// Takes the given record number, which must be free: 0, or -1 with iserrno (119 when it is not on
// the list). A number above the highest in use becomes the highest, and those in between are listed
// as free, in ascending order. How far above it may be is for the caller to limit.
int getdatrec(std::int32_t number);

// Numbers on the list of free records; -1 with 105 for a damaged list.
[[nodiscard]] std::int32_t free_records_listed();

// Erases from `numbers` those that must not be returned by freerec(): what is listed, is out of
// range or belongs to a present record. 0, or -1 with iserrno.
[[nodiscard]] int drop_returned(std::vector<std::int32_t>& numbers);

// Whether the list of free nodes is sound: each of its nodes has the form of one, and the chain
// ends. The entries are not looked at.
[[nodiscard]] bool free_nodes_serve();

}  // namespace isam
