// lossfile: a new file of losses, one record a line, as zentra-repair(1) tells them.
//
// The file is made when there is something for it, and must not be there before.
//
// Keeps   until keep() has succeeded the destructor removes it, and so does a signal that ends the
//         program while a checker::Interrupt exists
#pragma once

#include <cstdint>
#include <string>

#include "common/holders.h"
#include "zentra/losses.h"

namespace zentra {

class LossFile {
 public:
  explicit LossFile(std::string path) : path_(std::move(path)) {}
  LossFile(const LossFile&) = delete;
  LossFile& operator=(const LossFile&) = delete;
  ~LossFile();

  // False, with errno, when it could not be written.
  [[nodiscard]] bool add(const LostRecord& lost);
  // Brings all to the disk, where it stays: false with errno.
  [[nodiscard]] bool keep();
  // Removes it even so.
  void drop();

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
