// recordsteps: what a plan tells of records: which are dropped, emptied or no longer reached.
//
// Needs   the current pair, opened to read; its bad records and what its check has found
// Never   changes a byte
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "isam.h"
#include "zentra/repair/badrecords.h"
#include "zentra/repair/notes.h"

namespace zentra {

class RecordSteps {
 public:
  // `keys`: the descriptions of the pair's indexes, as far as they are known. `spared`: ascending
  // numbers of records that cannot be read now, but are whole behind the repair.
  RecordSteps(const Notes& notes, const std::vector<keydescr>& keys, const BadRecords& bad,
              const SameKeys& same_keys, const std::vector<std::int32_t>& spared,
              std::vector<Entry>& steps)
      : notes_(notes),
        keys_(keys),
        bad_(bad),
        same_keys_(same_keys),
        spared_(spared),
        steps_(steps) {}

  // Adds a step with the bad records of this kind, if there are any; gives their number.
  std::int64_t tell(Why why, Fate fate, const char* code, const std::string& text);
  // Adds a step with the records that an index leads to, but that are neither there nor bad.
  std::int64_t tell_unreached(int n);
  // How many items of an index lead to no record, but to one that the repair keeps.
  [[nodiscard]] std::int64_t kept_of(int n) const;

 private:
  [[nodiscard]] const BadRecord* find(std::int32_t record) const;
  [[nodiscard]] bool is_told(std::int32_t record) const;
  [[nodiscard]] Fields fields_of(const BadRecord& bad) const;
  void add_backing(std::int32_t record, isam::ConstBytes fixed, Fields& fields) const;

  const Notes& notes_;
  const std::vector<keydescr>& keys_;
  const BadRecords& bad_;
  const SameKeys& same_keys_;
  const std::vector<std::int32_t>& spared_;
  std::vector<Entry>& steps_;
};

}  // namespace zentra
