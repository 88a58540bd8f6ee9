// files: the open and file tables, the names of a pair, dictionary I/O and the end of a call.
//
// Keeps   F1 a pair is opened once per process and shared by its opens: closing any descriptor of
//            a file would drop all locks of the process on it
//         F2 every descriptor is close-on-exec
// Gives   the current context for whoever works on a pair
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "isam/current.h"

namespace isam {

[[nodiscard]] std::string mkidxname(std::string_view base);
[[nodiscard]] std::string mkdatname(std::string_view base);

// A fresh open record, or null with 104 (all in use).
[[nodiscard]] OpenRecord* allocopen();
// Gives an open record and its part in the file record back.
void freeopen(OpenRecord& open);

// The file record of the pair `name`, opened unless the process already has it. `mode` 0 accepts
// a data file that can only be read. Null with iserrno (and iserrio) when a file cannot be opened.
[[nodiscard]] FileRecord* allocfile(std::string_view name, int mode);

// Makes an open and its file current.
void make_current(OpenRecord& open);

// Reads the dictionary into the current file record and tells whether it is one: 0, or -1 with
// 105 (not a dictionary, or not whole), 171 (another format) or the system's error.
int dictread();
// Writes the dictionary copy and clears its changed flag: 0, or -1 with iserrno.
int dictwrite();

// Ends a call on the current open: raises the change stamp when a page changed, writes what must
// be seen by other processes, sets the status characters and releases the semaphore. 0, or -1
// when iserrno is set.
int isexit();

// Makes sure that the shared record buffer holds more than `size` bytes: 0, or -1 with ENOMEM.
int mktemprec(int size);
[[nodiscard]] std::span<Byte> temprecord();

}  // namespace isam
