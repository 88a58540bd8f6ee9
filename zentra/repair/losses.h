// losses: records that a repair drops, or of which it drops the variable part, with their bytes in
// a file of their own, NAME.lost.jsonl.
//
// One JSON object a line; zentra-repair(1) tells its form. The file is only ever appended to.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/holders.h"
#include "zentra/repair/badrecords.h"

namespace zentra {

[[nodiscard]] std::string losses_of(const std::string& name);

struct LostRecord {
  std::int64_t record = 0;  // 0: bytes of no record that is known
  int state = 0;
  std::string_view fixed{};
  std::string_view variable{};
  bool is_kept = false;  // without its variable part
  const char* reason = "";
};
// Its line.
[[nodiscard]] std::string line_of(const LostRecord& lost);

class Losses {
 public:
  // Appends the records of the current pair, and brings them to the disk: 0, or -1 with errno. A
  // symbolic link is not followed.
  [[nodiscard]] int append(const std::string& path, const BadRecords& records);
  // Takes back what was appended.
  void take_back();
  [[nodiscard]] std::int64_t count() const { return count_; }

 private:
  [[nodiscard]] int write_all(const BadRecords& records);

  std::string path_;
  common::FileHold file_;
  bool is_new_ = false;
  std::int64_t before_ = 0;  // its size
  std::int64_t count_ = 0;   // lines
};

}  // namespace zentra
