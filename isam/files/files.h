// files: the open and file tables, the names of a pair.
//
//   open pair:  free (usecount -1) -> in use (1..) -> idle, still open (0) -> free
//
// Keeps   F1 a pair is opened once per process and shared by its opens: closing any descriptor of
//            a file would drop all locks of the process on it
//         F2 every descriptor is close-on-exec
//         F3 an open pair whose file was replaced on disk serves its opens on: pairs are told apart
//            by their identity, whatever their names are
// Gives   the current context for whoever works on a pair
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "isam/base/current.h"
#include "isam/base/errors.h"

namespace isam {

// A pair without a user stays open as long as fewer than ismaxfds pairs are open (0: none does).
// isopenfds is how many are open, with a user or without.
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
// From this handle on none has been in use yet.
[[nodiscard]] int first_unused_handle();
// The handle of an open.
[[nodiscard]] int isfd_of(const Open& open);
// Gives an open and its part in the open pair back.
void freeopen(Open& open);
// In a child made by fork: closes all that the parent had open. The handles of its opens stay
// taken, for whoever still uses one must not meet another open.
void forget_opens();
// Frees such a handle; does nothing for any other.
void forget_inherited(int isfd);

// Whether an index file that can only be read is accepted. It cannot be locked exclusively, so only
// a check that changes nothing can work with it. kToRead: both files are opened to read, whatever
// else may be done with them.
enum class IndexAccess { kToWrite, kOrToRead, kToRead };

// The open pair `name`, opened unless the process already has it. `mode` 0 accepts a data file that
// can only be read. To be called with iserrno 0. Null with the system's error when a file cannot be
// opened, with 113 when another copy of the library in this process has it open, with 104 or 116.
[[nodiscard]] OpenPair* allocfile(std::string_view name, int mode,
                                  IndexAccess index_access = IndexAccess::kToWrite);
// Gives an open pair a name, which is relative to the process's folder of the moment.
void name_file(OpenPair& file, std::string_view name);
// Opens a pair's data file again after vclose(), whatever the process's folder is by now: 0, or -1
// with iserrno, ENOENT also when the name leads to another file.
int reopen_data(OpenPair& file);

// Opens the current file's audit trail for writing: 0, or -1 with the system's error and iserrio
// 0x13, or those of reopen_data().
int open_trail(const std::string& path);
// Closes a file's audit trail, if it is open.
void close_trail(OpenPair& file);

// For a process short of descriptors: closes pairs without a user, then of the others data files
// and audit trails, which their next calls open again. It closes all it can, but nothing while
// fewer than ismaxfds pairs are open.
void vclose();
// Closes pairs without a user, those not used for longest first, while more than `most` pairs are
// open.
void close_idle_files(int most = 0);

// Makes an open and its file current.
void make_current(Open& open);

// Makes sure that the shared record buffer holds more than `size` bytes: 0, or -1 with ENOMEM.
int mktemprec(int size);
// The shared record buffer, all of it.
[[nodiscard]] std::span<Byte> temprecord();

}  // namespace isam
