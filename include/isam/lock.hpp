// locks: locks on records and files that end with their scope. Part of isam.hpp.
#pragma once

#include "isam.h"
#include "isam/failures.hpp"
#include "isam/file.hpp"

namespace zentra {

// Releases at the end of its scope all records of a file that this process has locked by reading
// them. The file must stay open until then.
class RecordLocks {
 public:
  explicit RecordLocks(const File& file) : isfd_(file.number()) {}
  RecordLocks(const RecordLocks&) = delete;
  RecordLocks& operator=(const RecordLocks&) = delete;
  ~RecordLocks() { isrelease(isfd_); }

 private:
  int isfd_;
};

// Holds a lock on a whole file of Locking::kManual against other processes, if none of them has a
// lock in it: test it before use. Its end also releases the file's record locks.
class FileLock {
 public:
  explicit FileLock(const File& file) : isfd_(file.number()), held_(islock(isfd_) == 0) {
    if (!held_ && iserrno != ISELOCKED) throw Error("islock");
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock() {
    if (held_) isunlock(isfd_);
  }

  [[nodiscard]] explicit operator bool() const noexcept { return held_; }

 private:
  int isfd_;
  bool held_;
};

}  // namespace zentra
