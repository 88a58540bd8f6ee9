// databytes: the few bytes of a data file that a repair changes, noted beside the index of before
// ("KEPT.data"), so that they can be put back.
//
// Its form is that of text_of() in databytes.cpp; docs/format.md tells it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "isam/base/format.h"
#include "zentra/badrecords.h"

namespace zentra {

struct DataChange {
  std::int64_t offset = 0;
  int count = 0;  // bytes, up to kVariableTrailer
  isam::Byte before[isam::kVariableTrailer] = {};
  isam::Byte after[isam::kVariableTrailer] = {};
};
using DataChanges = std::vector<DataChange>;

// What becomes of the slots of these records of the current pair; nothing when one cannot be read.
[[nodiscard]] std::optional<DataChanges> changes_for(const BadRecords& records);

[[nodiscard]] std::string data_file_of(const std::string& kept);
// Notes them beside a kept index, on the disk: 0, or -1 with errno.
[[nodiscard]] int note_changes(const std::string& kept, const DataChanges& changes);
// What was noted; none where there is no such file. Nothing when it cannot be read or is damaged.
[[nodiscard]] std::optional<DataChanges> noted_changes(const std::string& kept);

// Whether the file has one or the other bytes at every place.
[[nodiscard]] bool are_there(int fd, const DataChanges& changes);
// Write the bytes behind, or before, the changes, and sync the file: 0, or -1 with errno.
[[nodiscard]] int make_changes(int fd, const DataChanges& changes);
[[nodiscard]] int take_back_changes(int fd, const DataChanges& changes);

}  // namespace zentra
