// files: the open and file tables, the names of a pair.
//
//   open pair:  free (usecount -1) -> in use (1..) -> idle, still open (0) -> free
//
// Keeps   F1 a pair is opened once per process and shared by its opens: closing any descriptor of
//            a file would drop all locks of the process on it
//         F2 every descriptor is close-on-exec
//         F3 an open pair whose file was replaced on disk serves its opens on: pairs are told apart
//         by
//            their identity, whatever their names are
// Gives   the current context for whoever works on a pair
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "isam/base/current.h"
#include "isam/base/errors.h"

namespace isam {

// How many pairs may stay open without a user (0: none), and how many pairs are open.
extern int ismaxfds;
extern int isopenfds;

[[nodiscard]] std::string mkidxname(std::string_view base);
[[nodiscard]] std::string mkdatname(std::string_view base);
// 0 when `base` can name a pair (at most 122 bytes, something behind the last "/"), else -1 with
// 114. A null pointer names none.
int ckfilname(const char* base);

// A fresh open, or null with 104 (all in use) or 116.
[[nodiscard]] Open* allocopen();
// The open of a handle, null when it is not in use.
[[nodiscard]] Open* open_of(int isfd);
// The handle of an open.
[[nodiscard]] int isfd_of(const Open& open);
// Gives an open and its part in the open pair back.
void freeopen(Open& open);
// In a child: what the parent had open is not open here. Its numbers stay taken, for whoever still
// uses one must not meet another open, until each is forgotten by itself.
void forget_opens();
void forget_inherited(int isfd);

// Whether an index file that can only be read is accepted: nobody but a check that changes nothing
// can work with one, which takes no exclusive lock.
enum class IndexAccess { kToWrite, kOrToRead };

// The open pair `name`, opened unless the process already has it. `mode` 0 accepts
// a data file that can only be read. Null with iserrno (and iserrio) when a file cannot be opened;
// with 113 when another copy of the library in this process has it open.
[[nodiscard]] OpenPair* allocfile(std::string_view name, int mode,
                                  IndexAccess index_access = IndexAccess::kToWrite);
// Names an open pair, as seen from the folder of the moment.
void name_file(OpenPair& file, std::string_view name);
// Opens its data file again after vclose, wherever the process is by now: 0, or -1 with
// iserrno.
int reopen_data(OpenPair& file);

// Opens the current file's audit trail for appending: 0, or -1 with the system's error and iserrio
// 0x13.
int open_trail(const std::string& path);
// Closes it, if it is open.
void close_trail(OpenPair& file);

// Creates a file that must not exist, with permissions 0664: 0, or -1 with iserrno and iserrio 0x21
// to 0x23.
int makefile(const std::string& path, FileKind kind);

// Closes descriptors when the process runs short of them: pairs without a user first, then data
// files, to be opened again on their next call.
void vclose();
// Closes pairs that have no user, those not used for longest first, while more than `most` pairs
// are open.
void close_idle_files(int most = 0);

// Makes an open and its file current.
void make_current(Open& open);

// Makes sure that the shared record buffer holds more than `size` bytes: 0, or -1 with ENOMEM.
int mktemprec(int size);
[[nodiscard]] std::span<Byte> temprecord();

}  // namespace isam
