// reportfile: the file to which KESTRO_REPORT has a run append what it finds.
//
//   ReportFile file(path, names);
//   file.append(line);    // lines wait in memory
//   file.flush();         // now they are in the file
//
// Keeps   nothing but a report is appended to: a file that is there must be empty or hold one, and
//         be neither of a pair that is checked nor standard output or standard error
// Never   fails or ends the run: what cannot be written is told once on standard error, and from
//         then on nothing is written
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/holders.h"

namespace checker {

class ReportFile {
 public:
  // `pairs`: the base names of the pairs that will be checked.
  ReportFile(std::string path, const std::vector<std::string>& pairs);

  [[nodiscard]] bool is_open() const { return static_cast<bool>(fd_); }
  void append(std::string_view line);
  void flush();
  // Ends the report because of this errno.
  void give_up(int error);

 private:
  void open(const std::vector<std::string>& pairs);
  [[nodiscard]] bool begins_as_report();
  void refuse(const char* why);

  std::string path_;
  common::FileHold fd_;
  std::string waiting_;
};

}  // namespace checker
