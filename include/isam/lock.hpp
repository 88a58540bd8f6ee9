// lock: locks on records and files that end with their scope. Part of isam.hpp.
#pragma once

#include "isam.h"
#include "isam/failures.hpp"
#include "isam/file.hpp"

namespace zentra {

// Takes no lock. At the end of its scope, when this open has locked anything, it releases the
// record locks that this process has in the file, and a FileLock of the same file with them.
// Records that an open transaction has changed stay locked; those locked before it began may, too.
// The file must stay open until the end of the scope.
class RecordLocks {
 public:
  explicit RecordLocks(const File& file) : isfd_(file.number()) {}
  RecordLocks(const RecordLocks&) = delete;
  RecordLocks& operator=(const RecordLocks&) = delete;
  ~RecordLocks() { isrelease(isfd_); }

 private:
  int isfd_;
};

// Locks a whole file, opened with Locking::kManual, against other processes. It does not wait: when
// another process has a lock in the file, the object holds nothing and is false, so test it before
// use. Its end also releases the process's record locks in the file. With Locking::kExclusive it is
// true and does nothing; with Locking::kAutomatic it throws Error. The file must stay open until
// its end.
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
