// newpair: a pair that nobody sees before it is complete.
//
// It is made under another name in the same folder, NAME.newN.dat and NAME.newN.idx, and gets its
// own when both files are on the disk: the data file first, for a name without an index is no pair.
//
//   NewPair pair{name};
//   if (!pair.make(shape)) return refused(pair.why());
//   ... fill pair.handle() ...
//   if (!pair.publish()) return failed(pair.why());
//
// Keeps   a name that is taken stays what it is
//         until publish() has succeeded the destructor removes all, and so does a signal while a
//         checker::Interrupt exists. What a killed run has left the next one of that name removes
#pragma once

#include <string>

#include "zentra/pair/pairshape.h"
#include "zentra/report/status.h"

namespace zentra {

class NewPair {
 public:
  explicit NewPair(std::string name) : name_(std::move(name)) {}
  NewPair(const NewPair&) = delete;
  NewPair& operator=(const NewPair&) = delete;
  ~NewPair();

  // Makes it empty and opens it exclusively. False: why() tells.
  [[nodiscard]] bool make(const PairShape& shape);
  [[nodiscard]] int handle() const { return isfd_; }
  // Gives it owner, permissions and extended attributes of a file; where that may not be, only its
  // own user may read it.
  void make_like(int fd);
  // Closes it, and looks at it as zentra check does: false where it is not sound, as when a disk
  // fails; why() tells.
  [[nodiscard]] bool check();
  // Closes it, and gives it its name. False: why() tells, and there is no such pair.
  [[nodiscard]] bool publish();
  [[nodiscard]] const std::string& why() const { return why_; }

 private:
  bool fail(std::string why);
  bool fail_by_code();
  bool fail_by_errno(const std::string& path);
  [[nodiscard]] bool is_free();
  void remove_leftovers() const;
  [[nodiscard]] bool build(const PairShape& shape);
  [[nodiscard]] bool add_indexes(const PairShape& shape);
  [[nodiscard]] bool close_whole();
  [[nodiscard]] bool sync();
  [[nodiscard]] bool name_files();
  void close();
  void remove();

  std::string name_;
  std::string made_;  // its name for now; empty while there is no file
  int isfd_ = -1;
  std::string why_;
};

// The verdict of zentra check on a pair that was just made, and in words why it is not sound.
struct MadeCheck {
  Status status = Status::kSound;
  std::string why{};
};
[[nodiscard]] MadeCheck check_made(const std::string& name);

}  // namespace zentra
