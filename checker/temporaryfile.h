// temporaryfile: a file beside the index that nobody sees before it is complete.
//
// It has no name where the system can make such a file, else "INDEX.kestro-NUMBER" with its own
// inode number, by which a later run knows what a killed one has left. A live run holds a lock on
// it.
//
//   TemporaryFile file{index};
//   if (!file) return failed(file.error());
//   ... fill file.fd() ...
//   if (file.become(name) != 0) ...             // keeps it; else it goes with its holder
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

  // Gives it a name that no file has: 0, or -1 with errno (EEXIST: one has it). Until keep() a
  // signal removes it.
  [[nodiscard]] int become(const std::string& name);
  void keep();
  // Puts it in the place of the file of that name in one step: 0, or -1 with errno. Meanwhile it
  // has a name of its own, whatever it had before.
  [[nodiscard]] int replace(const std::string& name);
  // Takes back the name that it became.
  void withdraw();

 private:
  [[nodiscard]] std::string own_name() const;
  void make_with_name();
  void set_name(std::string name);
  [[nodiscard]] int link_to(const std::string& name) const;

  std::string index_;
  common::FileHold fd_;
  std::string name_;  // that it has for the moment; empty for none
  bool keeps_name_ = false;
  int error_ = 0;
};

// Of the file of this path: ends in a slash, or is ".".
[[nodiscard]] std::string folder_of(const std::string& path);

// Removes what killed runs have left beside an index. The caller has the pair for itself.
void remove_leftovers(const std::string& index);

}  // namespace checker
