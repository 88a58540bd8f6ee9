// layout: the fields of a pair's records, which the pair itself does not know.
//
// A layout is a text with one line for each field, and comments behind "#":
//
//   id      char    0     8
//   name    char    next  20
//   amount  long    next  4  decimal 2
//   notes   char    tail
//
// Needs   nothing but the standard library; for other encodings than UTF-8, those of the C library
// Gives   fields that lie one behind the other in their record, each name once; or what is wrong,
//         line by line
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace layout {

class Encoding;

using Bytes = std::span<const unsigned char>;

inline constexpr int kGreatestRecord = 32767;
inline constexpr std::size_t kGreatestText = std::size_t{4} << 20;

// How a value is stored.
enum class Type : std::uint8_t { kChar, kInt, kLong, kFloat, kDouble, kLocale, kBytes };
// What is kept in it.
enum class Meaning : std::uint8_t { kPlain, kDate, kDays, kDecimal, kBoolean };

[[nodiscard]] const char* name_of(Type type);
// Of a number; 0 for a type of any length.
[[nodiscard]] int length_of(Type type);
[[nodiscard]] constexpr bool is_text(Type type) {
  return type == Type::kChar || type == Type::kLocale;
}
[[nodiscard]] constexpr bool is_whole_number(Type type) {
  return type == Type::kInt || type == Type::kLong;
}

struct Field {
  std::string name;
  Type type = Type::kChar;
  int offset = 0;
  int length = 0;  // 0 for the tail
  bool is_tail = false;
  bool may_be_null = false;
  bool keeps_blanks = false;  // trailing ones are part of the text
  Meaning meaning = Meaning::kPlain;
  std::string form{};      // kDate: such as YYYYMMDD; kDays: the day with number 0
  int decimals = 0;        // kDecimal
  std::string yes{};       // kBoolean
  std::string no{};        // kBoolean
  std::string encoding{};  // of a plain text; empty: UTF-8
  std::shared_ptr<const Encoding> characters{};  // that encoding's
  std::string comment{};                         // for a draft: why it was guessed
  int line = 0;                                  // where it stands in the text

  [[nodiscard]] int end() const { return offset + length; }
};

// In the order of the text; the tail, if there is one, is the last.
using Fields = std::vector<Field>;

struct Problem {
  int line;  // 0: it is about the whole
  std::string text;
};

struct Reading {
  Fields fields;
  std::vector<Problem> problems;  // the first few; with any the fields are of no use
};

[[nodiscard]] Reading read(std::string_view text);

// What does not fit records of this length, with or without a tail.
[[nodiscard]] std::vector<Problem> misfits(const Fields& fields, int record_length, bool has_tail);

// "FILE:LINE: text"
[[nodiscard]] std::string shown(const Problem& problem, std::string_view file);

// The text that read() understands, in columns.
[[nodiscard]] std::string text_of(const Fields& fields);

}  // namespace layout
