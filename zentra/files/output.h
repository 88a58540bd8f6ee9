// output: bytes on their way to standard output, or to a file that gets its name when it is whole.
//
//   Output output{file};
//   if (!output.open()) ...                       // output.error() says why, as an errno
//   output.put_until(put(output.room(most)));
//   if (!output.finish()) ...
//
// Keeps   a file of that name as it is until the new one is whole and on the disk; a device or a
//         pipe is written to
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/holders.h"

namespace checker {
class TemporaryFile;
}

namespace zentra {

class Output {
 public:
  // `file`: empty or "-" for standard output, as it is now.
  explicit Output(std::string file);
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  ~Output();

  [[nodiscard]] bool open();
  [[nodiscard]] bool is_standard() const { return file_.empty(); }
  // Whether it goes to a terminal.
  [[nodiscard]] bool is_terminal() const;

  // Room for so many bytes behind those that have been put.
  [[nodiscard]] char* room(std::size_t bytes) {
    return buffer_.size() - used_ >= bytes ? buffer_.data() + used_ : make_room(bytes);
  }
  // What stands in the room up to there has been put.
  void put_until(const char* end) { used_ = static_cast<std::size_t>(end - buffer_.data()); }
  void put(std::string_view text);
  // The same of a text that is best written as it is, without a copy.
  void put_much(std::string_view text);

  // Writes what is left, and gives the file its name.
  [[nodiscard]] bool finish();
  // The first failure, as an errno; 0 for none. After it nothing more is written.
  [[nodiscard]] int error() const { return error_; }

 private:
  [[nodiscard]] char* make_room(std::size_t bytes);
  void write_all();
  void write(std::string_view text);

  std::string file_;
  int fd_ = -1;
  common::FileHold own_;
  std::unique_ptr<checker::TemporaryFile> temporary_;
  std::vector<char> buffer_;
  std::size_t used_ = 0;
  int error_ = 0;
};

}  // namespace zentra
