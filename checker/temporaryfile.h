// temporaryfile: a file beside the index that nobody sees before it is complete.
//
// It has no name where the system can make a file without one, else "INDEX.kestro-NUMBER" with its
// own inode number, by which a later run knows what a killed one has left. A live run holds a lock
// on it.
//
//   TemporaryFile file{index};
//   if (!file) return failed(file.error());
//   ... fill file.fd() ...
//   if (file.become(name) != 0) ...
//   file.keep();
//
// Until become() or replace() has succeeded the destructor removes the file. Until keep() or
// replace() a signal that ends the program removes it too.
#pragma once

#include <string>

#include "common/holders.h"

namespace checker {

class TemporaryFile {
 public:
  // For the index file of this path, in its folder.
  explicit TemporaryFile(std::string index);
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile();

  explicit operator bool() const { return static_cast<bool>(fd_); }
  [[nodiscard]] int error() const { return error_; }  // errno, when it could not be made
  [[nodiscard]] int fd() const { return fd_.get(); }

  // Gives it a name that no file has: 0, or -1 with errno (EEXIST: one has it). From then on the
  // destructor leaves it there.
  [[nodiscard]] int become(const std::string& name);
  // Signals, too, leave it there.
  void keep();
  // Puts it in the place of the file of that name in one step: 0, or -1 with errno. A file without
  // a name gets its own name first, and still has that after a failure.
  [[nodiscard]] int replace(const std::string& name);
  // Removes the name that it has, even one from become(). Its bytes go when it is closed.
  void withdraw();

 private:
  [[nodiscard]] std::string own_name() const;
  void make_with_name();
  void set_name(std::string name);
  [[nodiscard]] int link_to(const std::string& name) const;

  std::string index_;
  common::FileHold fd_;
  std::string name_;         // that it has for the moment; empty for none
  bool keeps_name_ = false;  // the destructor leaves the file its name
  int error_ = 0;
};

// The folder of the file of this path. It ends in a slash; "." for a path without a slash.
[[nodiscard]] std::string folder_of(const std::string& path);

// Removes what killed runs have left beside an index, if its path has a slash, as real_path() makes
// it (checker/obstacle). The caller has the pair for itself.
void remove_leftovers(const std::string& index);

}  // namespace checker
