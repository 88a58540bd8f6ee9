// io: system calls on files go through one small table. Only calls that no test has to replace
// (such as lstat) are made directly.
//
// Gives   `system_calls()`: the table in use; tests put their own in its place to make a disk
//         full, a transfer short or a lock refused at a chosen call
// Keeps   open_file(), read_at() and write_at() make a call again that a signal interrupted before
//         it did anything. read_at() and write_at() continue a short transfer until it is whole,
//         at the end of the file, or fails
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "common/bytes.h"

struct flock;
struct statfs;

namespace common {

struct SystemCalls {
  int (*open)(const char* path, int flags, mode_t permissions);
  int (*close)(int fd);
  ssize_t (*pread)(int fd, void* to, std::size_t count, off_t offset);
  ssize_t (*pwrite)(int fd, const void* from, std::size_t count, off_t offset);
  int (*fcntl_lock)(int fd, int command, struct flock* lock);
  int (*fstat)(int fd, struct stat* status);
  off_t (*seek_end)(int fd);  // the size of a file
  int (*fstatfs)(int fd, struct statfs* status);
  int (*stat)(const char* path, struct stat* status);
  int (*link)(const char* from, const char* to);
  int (*unlink)(const char* path);
  int (*rename)(const char* from, const char* to);
  int (*link_open)(int fd, const char* to);  // gives a name to a file that has none
  int (*fsync)(int fd);
  int (*ftruncate)(int fd, off_t size);
  int (*clone)(int from, int to);  // gives `to` all bytes of `from`, in shared blocks
  // Copies up to `count` bytes to the same offset of another file: how many, or -1 with errno.
  ssize_t (*copy_range)(int from, int to, off_t offset, std::size_t count);
  int (*fsetxattr)(int fd, const char* name, const void* value, std::size_t size, int flags);
};

extern SystemCalls system_call_table;
[[nodiscard]] inline SystemCalls& system_calls() { return system_call_table; }

// Opens with close-on-exec; the descriptor, or -1 with errno.
[[nodiscard]] int open_file(const char* path, int flags, mode_t permissions = 0);

void close_file(int fd);

// Whether a path leads to a file.
[[nodiscard]] bool file_exists(const std::string& path);
// Whether a name is taken, even by a symbolic link that leads nowhere.
[[nodiscard]] bool name_exists(const std::string& path);

// Reads bytes at `offset` into `to`: how many. Less than `to` holds means the end of the file, with
// errno 0; -1 with errno means a failure.
[[nodiscard]] ssize_t read_at(int fd, Bytes to, std::int64_t offset);

// 0, or -1 with errno when not every byte could be written.
[[nodiscard]] int write_at(int fd, ConstBytes from, std::int64_t offset);
// The same, in pieces of 16 KiB: what comes in larger ones the system may keep in larger pages, in
// which each small write after that costs several times as much.
[[nodiscard]] int write_in_pieces(int fd, ConstBytes from, std::int64_t offset);

// Writes zero bytes from `from` up to `to`: 0, or -1 with errno and some of them perhaps written.
[[nodiscard]] int write_zeros(int fd, std::int64_t from, std::int64_t to);

// Cuts a file to `size` bytes: 0, or -1 with errno.
int cut_file(int fd, std::int64_t size);

// Whether a mapping of the file shows at once what any process of any machine has written to it:
// true for the file systems that are known to, all of them local.
[[nodiscard]] bool mapping_shows_writes(int fd);

// Gives `size` the bytes of a regular file or block device, or 0 for anything else. Returns 0, or
// -1 with errno.
[[nodiscard]] int find_size(int fd, std::int64_t& size);

// The same, but not of a directory. fstat() is not asked where the file has a place: it gives the
// time of the last change, too, and a system that was asked for it notes the next change at a finer
// time, which makes the next write dearer.
[[nodiscard]] int find_end(int fd, std::int64_t& size);

// The size that find_size() gives; 0 also when that fails.
[[nodiscard]] std::int64_t file_size(int fd);

}  // namespace common
