// rejects: what was not loaded, one JSON object a line, in a file of its own:
//
//   {"schema":1,"type":"rejected","line":17,"reason":"...","bytes":{"hex":"...","text":"..."}}
//
// The file is made when there is something for it, and must not be there before.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/holders.h"

namespace zentra {

class Rejects {
 public:
  explicit Rejects(std::string path) : path_(std::move(path)) {}
  Rejects(const Rejects&) = delete;
  Rejects& operator=(const Rejects&) = delete;
  // Removes the file, unless keep() was called.
  ~Rejects();

  // `text`: the line or row as it stands. False, with errno, when it could not be written.
  [[nodiscard]] bool add(std::int64_t line, const std::string& reason, std::string_view text);
  // Brings all to the disk: false with errno.
  [[nodiscard]] bool sync();
  // From now on the file stays.
  void keep();
  [[nodiscard]] bool is_kept() const { return is_kept_; }

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::int64_t count() const { return count_; }

 private:
  [[nodiscard]] bool put();

  std::string path_;
  common::FileHold file_;
  std::string text_;  // not written yet
  std::int64_t written_ = 0;
  std::int64_t count_ = 0;
  bool is_kept_ = false;
};

}  // namespace zentra
