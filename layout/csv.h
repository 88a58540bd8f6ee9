// csv: rows of a text in the form of RFC 4180, one after the other.
//
//   CsvReader reader{source};
//   while ((step = reader.next()) == Step::kRow || step == Step::kBad) ...
//
// Lines end with a newline, or with a carriage return and a newline; the last may lack its end. A
// cell in double quotes may hold commas, ends of lines, and quotes, which are doubled. The text is
// UTF-8, with or without its mark at the beginning. Empty lines do not count.
//
// Keeps   memory for two rows of the greatest length, whatever the text is
// Gives   each row with its line, or what is wrong with it: the next one begins behind the line of
//         the fault, or behind the row's first line where its last quote is missing
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace layout {

class CsvReader {
 public:
  // Puts bytes to where it is told: how many, 0 at the end, less when it fails.
  using Source = std::function<std::ptrdiff_t(std::span<char>)>;
  static constexpr std::size_t kLongest = std::size_t{1} << 20;

  explicit CsvReader(Source source, std::size_t longest = kLongest);

  enum class Step : std::uint8_t {
    kRow,
    kBad,  // a row that is none: wrong() tells why
    kEnd,
    kFailed,  // the source cannot be read, or is no CSV at all: then wrong() tells why
  };
  [[nodiscard]] Step next();

  // Until the next step:
  [[nodiscard]] const std::vector<std::string_view>& cells() const { return cells_; }
  // The row as it stands, without the end of its last line; the beginning of one that is too long.
  [[nodiscard]] std::string_view bytes() const { return bytes_; }
  // Where the row begins, from 1.
  [[nodiscard]] std::int64_t line() const { return line_; }
  [[nodiscard]] const std::string& wrong() const { return wrong_; }

 private:
  // What became of a row; `size`: how many bytes it has, with its end.
  struct Row {
    enum class Is : std::uint8_t { kWhole, kBad, kCut } is;
    std::size_t size;
  };

  [[nodiscard]] std::string_view rest() const { return {buffer_.data() + begin_, end_ - begin_}; }
  [[nodiscard]] bool begin();
  [[nodiscard]] bool fill(std::size_t least);
  [[nodiscard]] Row split(std::string_view text);
  void split_simple(std::string_view line);
  [[nodiscard]] Row split_quoted(std::string_view text);
  [[nodiscard]] Row refuse(std::string_view text, std::size_t from, std::string why);
  [[nodiscard]] Step take(Row row);
  [[nodiscard]] Step take_first_line(std::string why);
  [[nodiscard]] Step skip_line();
  [[nodiscard]] std::string_view unquoted(std::string_view cell, bool has_quotes);

  Source source_;
  std::size_t longest_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  bool is_at_start_ = true;
  bool is_at_end_ = false;  // of the source
  std::int64_t line_ = 0;
  std::int64_t next_line_ = 1;
  std::vector<std::string_view> cells_;
  std::string_view bytes_;
  std::string wrong_;
  std::string unquoted_;  // cells that had quotes in them
};

}  // namespace layout
