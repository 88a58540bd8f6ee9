// databytes: the few bytes of a data file that a repair changes, noted beside the index of before
// ("KEPT.data"), so that they can be put back.
//
// Its form is that of text_of() in databytes.cpp; docs/format.md tells it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "checker/interrupt.h"
#include "checker/undodata.h"
#include "common/bytes.h"
#include "isam/base/format.h"
#include "zentra/repair/badrecords.h"

namespace zentra {

struct DataChange {
  std::int64_t offset = 0;
  int count = 0;  // bytes, up to kVariableTrailer
  isam::Byte before[isam::kVariableTrailer] = {};
  isam::Byte after[isam::kVariableTrailer] = {};
};

// Changes of as many bytes at each place, of which all but the first become zero, or stay.
class DataChanges {
 public:
  explicit DataChanges(int count = 1) : before_(static_cast<std::size_t>(count)) {}
  void reserve(std::size_t places);
  // False: it has not such a form.
  [[nodiscard]] bool add(const DataChange& change);
  void clear();

  [[nodiscard]] bool empty() const { return first_after_.empty(); }
  [[nodiscard]] std::size_t size() const { return first_after_.size(); }
  [[nodiscard]] DataChange operator[](std::size_t place) const;
  [[nodiscard]] const checker::BytesBefore& before() const { return before_; }

 private:
  checker::BytesBefore before_;
  std::vector<isam::Byte> first_after_;
  std::vector<bool> clears_rest_;
};

// What becomes of the slots of these records of the current pair; nothing when one cannot be read.
[[nodiscard]] std::optional<DataChanges> changes_for(const BadRecords& records);

using checker::data_file_of;

// Notes them beside a kept index, on the disk, in a file that has its owner: 0, or -1 with errno.
[[nodiscard]] int note_changes(const std::string& kept, const DataChanges& changes);

// What was noted beside a kept index.
struct DataNote {
  std::string fault;              // why it cannot be used; empty where it can, or there is none
  checker::UndoData::Index kept;  // the index that it belongs to: stamp and checksum
  DataChanges changes;
  std::int64_t end = 0;     // offset behind all that
  bool is_undoing = false;  // an undoing has begun to take them back
};
[[nodiscard]] DataNote noted_changes(const std::string& kept);
// Note in it, on the disk, that an undoing takes the changes back, and that it does not: 0, or -1
// with errno.
[[nodiscard]] int note_undoing(const std::string& kept, const DataNote& note);
int note_no_undoing(const std::string& kept, const DataNote& note);

// Whether the file has one or the other bytes at every place.
[[nodiscard]] bool are_there(int fd, const DataChanges& changes);
// Write the bytes behind, or before, the changes, and sync the file: 0, or -1 with errno.
[[nodiscard]] int make_changes(int fd, const DataChanges& changes);
[[nodiscard]] int take_back_changes(int fd, const DataChanges& changes);

// Takes back what still stands as it was changed, and can make that again.
class TakingBack {
 public:
  // 0, or -1 with errno.
  [[nodiscard]] int run(int fd, const DataChanges& changes);
  [[nodiscard]] int make_again(int fd, const DataChanges& changes) const;
  // Places that have other bytes now, which stay.
  [[nodiscard]] std::int64_t others() const { return others_; }

 private:
  std::vector<bool> written_;  // by place
  std::int64_t others_ = 0;
};

}  // namespace zentra
