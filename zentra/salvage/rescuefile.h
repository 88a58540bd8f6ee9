// rescuefile: a file of which as much is read as the disk gives, without a lock and unchanged.
//
// Gives   zero bytes in place of those that cannot be read, and where these are; whether the file
//         has changed since it was opened
// Never   writes, locks, or waits for what is no file
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/holders.h"
#include "isam/base/format.h"
#include "zentra/report/status.h"

namespace zentra {

class RescueFile {
 public:
  struct Range {
    std::int64_t begin;
    std::int64_t end;
  };

  // False: status() and why() tell.
  [[nodiscard]] bool open(const std::string& path);
  explicit operator bool() const { return static_cast<bool>(file_); }

  [[nodiscard]] int fd() const { return file_.get(); }
  [[nodiscard]] std::int64_t size() const { return size_; }
  [[nodiscard]] const struct stat& opened() const { return opened_; }
  [[nodiscard]] Status status() const { return status_; }
  [[nodiscard]] const std::string& why() const { return why_; }

  // How many bytes the file has there, at most as many as `to` holds.
  [[nodiscard]] std::size_t read(isam::Bytes to, std::int64_t offset);
  // Of the last read.
  [[nodiscard]] const std::vector<Range>& unread() const { return unread_; }
  // The first byte from `offset` on that is in no hole; size() if there is none.
  [[nodiscard]] std::int64_t next_data(std::int64_t offset) const;
  [[nodiscard]] bool has_changed() const;

 private:
  bool refuse(Status status, const std::string& why);
  [[nodiscard]] std::size_t read_in_pieces(isam::Bytes to, std::int64_t offset);

  common::FileHold file_;
  std::int64_t size_ = 0;
  struct stat opened_ {};
  std::vector<Range> unread_;
  Status status_ = Status::kSound;
  std::string why_;
};

}  // namespace zentra
