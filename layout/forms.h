// forms: how texts, numbers and dates stand in the bytes of a field.
#pragma once

#include <bit>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "layout/layout.h"

namespace layout {

// What kinds of bytes a text has, or'ed.
enum TextClass : unsigned char {
  kControl = 1,  // never part of a text
  kHigh = 2,     // of a character of several bytes
  kReturn = 4,   // part of a text before a newline only
  kNewline = 8,
  kTab = 16,
  kQuote = 32,
  kComma = 64,
  kBackslash = 128,
};
[[nodiscard]] unsigned classes_of(std::string_view text);
// Whether the bytes are UTF-8 without control characters other than tabs and ends of lines.
// `classes`: what classes_of() gives for them.
[[nodiscard]] bool is_printable(std::string_view text, unsigned classes);
[[nodiscard]] bool is_utf8(std::string_view text);
// The same for a text that is kept as the field tells.
[[nodiscard]] bool is_printable(const Field& field, std::string_view text, unsigned classes);

struct Character {
  std::size_t size;  // in UTF-8; 0: it is none
  std::uint32_t code;
};
// The first one of a text that is not empty.
[[nodiscard]] Character character_in(std::string_view text);

[[nodiscard]] inline std::string_view text_in(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
// Without the blanks at its end.
[[nodiscard]] inline std::string_view trimmed(std::string_view text) {
  constexpr std::uint64_t kBlanks = 0x2020202020202020;
  std::size_t end = text.size();
  for (; end >= sizeof kBlanks; end -= sizeof kBlanks) {
    std::uint64_t last = 0;
    std::memcpy(&last, text.data() + end - sizeof last, sizeof last);
    if (last == kBlanks) continue;
    static_assert(std::endian::native == std::endian::little, "the last byte is the highest");
    return text.substr(0, end - static_cast<std::size_t>(std::countl_zero(last ^ kBlanks) / 8));
  }
  while (end > 0 && text[end - 1] == ' ') --end;
  return text.substr(0, end);
}

[[nodiscard]] constexpr std::int64_t least_of(Type type) {
  return type == Type::kInt ? INT16_MIN : INT32_MIN;
}
[[nodiscard]] constexpr std::int64_t most_of(Type type) {
  return type == Type::kInt ? INT16_MAX : INT32_MAX;
}
// Of an int or a long, the most significant byte first.
[[nodiscard]] std::int64_t whole_number_in(Bytes bytes);
void put_whole_number(std::int64_t number, std::span<unsigned char> to);

template <typename Real>
[[nodiscard]] Real real_in(Bytes bytes) {
  Real value = 0;
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

// Whether the bytes stand for null, in a field that may be null.
[[nodiscard]] bool stands_for_null(const Field& field, Bytes bytes);
[[nodiscard]] inline bool is_null(const Field& field, Bytes bytes) {
  return field.may_be_null && stands_for_null(field, bytes);
}

using Day = std::chrono::year_month_day;

// A day of the years 1 to 9999.
[[nodiscard]] std::optional<Day> day_of(int year, int month, int day);
// 2026-11-22.
[[nodiscard]] std::optional<Day> day_in(std::string_view iso);
[[nodiscard]] char* put_day(Day day, char* to);
// The day that a field of the meanings kDate and kDays has.
[[nodiscard]] std::optional<Day> day_in(const Field& field, Bytes bytes);
// Whether the form is YYYYMMDD, and the bytes are such a day and blanks.
[[nodiscard]] bool has_usual_date(std::string_view form, Bytes bytes);
// Nothing where the field has no room for that day: two digits of a year are from 1969 to 2068.
[[nodiscard]] bool put_day(const Field& field, Day day, std::span<unsigned char> to);

}  // namespace layout
