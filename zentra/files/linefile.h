// linefile: a new file of lines about records, such as NAME.lost.jsonl.
//
// The file is made when there is something for it, and must not be there before. Only its owner may
// read it: there are records in it.
//
// Keeps   until keep() is called the destructor removes it, and so does a signal that ends the
//         program while a checker::Interrupt exists
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/holders.h"

namespace zentra {

class LineFile {
 public:
  explicit LineFile(std::string path) : path_(std::move(path)) {}
  LineFile(const LineFile&) = delete;
  LineFile& operator=(const LineFile&) = delete;
  ~LineFile();

  // A line with its end: false, with errno, when it could not be written.
  [[nodiscard]] bool add(std::string_view line);
  // Brings all to the disk: false with errno.
  [[nodiscard]] bool sync();
  // From now on the file stays.
  void keep();

  [[nodiscard]] bool is_kept() const { return is_kept_; }
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::int64_t count() const { return count_; }

 private:
  [[nodiscard]] bool make();
  [[nodiscard]] bool put();

  std::string path_;
  common::FileHold file_;
  std::string text_;  // not written yet
  std::int64_t written_ = 0;
  std::int64_t count_ = 0;  // lines
  bool is_kept_ = false;
};

}  // namespace zentra
