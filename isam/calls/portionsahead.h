// portionsahead: what the next calls of isreadmany will read, copied while the file is entered.
//
// Calls that follow each other with the same mode and number of records, and lock nothing, read
// portions of one scan. Copies of the next portions spare most of them the two system calls of the
// lock, which cost as much as reading sixty records.
//
// Keeps   what isam/calls/asof says; each portion comes with the position that its call leaves
// Never   copies more than kMostBytes, nor for an exclusive open, which has no lock to be spared
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "isam/base/current.h"
#include "isam/calls/asof.h"

namespace isam {

class PortionsAhead {
 public:
  // How many calls in a row have read portions such as this one.
  [[nodiscard]] int row(int count, int mode) const {
    return count == count_ && mode == mode_ ? row_ : 0;
  }
  // Notes that a call has read such a portion behind so many others in a row, and has room made for
  // the next ones: for none at first, then for more each time, as long as all are asked for. False
  // without memory, or where one would be too long.
  [[nodiscard]] bool begin(int count, int mode, int row_before);
  // Whether another portion has room; where it goes; it was read, and the cursor is behind it.
  [[nodiscard]] bool has_room() const { return filled_ < wanted_; }
  [[nodiscard]] recordset place();
  void add(const Cursor& cursor);
  // The portions are complete.
  void end(const OpenPair& file) { as_of_.note(file); }

  // Whether there is a portion for such a call, and the file is as it was.
  [[nodiscard]] bool serves(int count, int mode, OpenPair& file) const {
    return given_ < filled_ && row(count, mode) > 0 && as_of_.stands(file);
  }
  // Gives the next portion, with all that the call leaves.
  void take(const recordset& set, Open& open);
  // Another call enters: what was copied and not given is gone.
  void forget();

 private:
  static constexpr std::size_t kMost = 15;
  static constexpr std::size_t kMostBytes = std::size_t{128} * 1024;

  int count_ = 0;
  int mode_ = 0;
  int row_ = 0;
  std::size_t wanted_ = 1;
  std::size_t filled_ = 0;
  std::size_t given_ = 0;
  std::vector<Byte>
      records_;  // of maxreclen bytes each, as the next two one portion after the other
  std::vector<std::int32_t> numbers_;
  std::vector<std::int32_t> lengths_;
  std::vector<Cursor> behind_;
  AsOf as_of_;
};

}  // namespace isam
