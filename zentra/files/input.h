// input: what is loaded, which can be read a second time.
//
// A regular file is read again; what comes from elsewhere is kept in an unnamed file meanwhile.
//
//   Input input;
//   if (!input.open(path, folder)) return failed(errno);
//   while ((got = input.read(room)) > 0) ...
//   if (input.again() != 0) return failed(errno);
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "common/holders.h"

namespace zentra {

class Input {
 public:
  // `path`: empty or "-" for standard input. `folder`: where bytes are kept. False with errno.
  [[nodiscard]] bool open(const std::string& path, const std::string& folder);
  // The first bytes, some thousand at most; they are read all the same.
  [[nodiscard]] std::string_view beginning() const { return beginning_; }
  // How many bytes: 0 at the end, -1 with errno.
  [[nodiscard]] ssize_t read(std::span<char> to);
  // Begins anew: 0, or -1 with errno.
  [[nodiscard]] int again();
  // Of a regular file; 0 for what is not known.
  [[nodiscard]] std::int64_t size() const { return size_; }
  [[nodiscard]] std::int64_t taken() const { return at_; }

 private:
  [[nodiscard]] ssize_t read_first_time(std::span<char> to);
  [[nodiscard]] ssize_t take(std::span<char> to) const;

  common::FileHold file_;
  common::FileHold kept_;  // what was read of something that cannot be read again
  bool is_file_ = false;
  bool reads_kept_ = false;
  std::int64_t size_ = 0;
  std::int64_t at_ = 0;
  std::int64_t kept_size_ = 0;
  std::string beginning_;
  std::size_t beginning_given_ = 0;
};

// The lines of a text, none of them kept in memory beyond a length.
class LineReader {
 public:
  enum class Got : std::uint8_t {
    kLine,
    kTooLong,  // line() has its beginning
    kEnd,
    kFailed  // errno tells
  };

  explicit LineReader(Input& input) : input_(input), room_(kRoom, '\0') {}

  [[nodiscard]] Got next();
  // Without its end; valid until the next one.
  [[nodiscard]] std::string_view line() const { return line_; }
  [[nodiscard]] std::int64_t number() const { return number_; }
  // Whether the line had an end.
  [[nodiscard]] bool is_ended() const { return is_ended_; }

 private:
  static constexpr std::size_t kRoom = std::size_t{1} << 20;  // the longest line

  [[nodiscard]] Got pass_long_line();

  Input& input_;
  std::string room_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::string_view line_;
  std::string beginning_;  // of a line that is too long
  std::int64_t number_ = 0;
  bool is_ended_ = true;
};

}  // namespace zentra
