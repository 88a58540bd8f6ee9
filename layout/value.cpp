// The bytes of a field as text.
#include "layout/value.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

#include "layout/forms.h"
#include "layout/words.h"

namespace layout {
namespace {

constexpr std::size_t kNumberRoom = 32;   // of one that is no decimal
constexpr std::size_t kExactDigits = 15;  // of a number, for those who keep it as a double

char* copy(std::string_view text, char* to) { return std::copy(text.begin(), text.end(), to); }

// A text that is nothing else.
bool is_plain_text(const Field& field) {
  return is_text(field.type) && field.meaning == Meaning::kPlain;
}

std::string_view text_of_field(const Field& field, Bytes bytes) {
  const std::string_view text = text_in(bytes);
  return field.keeps_blanks || field.is_tail ? text : trimmed(text);
}

template <typename Real>
std::optional<Put> put_real(Bytes bytes, char* to) {
  const Real value = real_in<Real>(bytes);
  if (!(std::fabs(value) <= std::numeric_limits<Real>::max())) return {};
  if (value == 0 && std::signbit(value)) return Put{copy("-0.0", to), Kind::kNumber};
  return Put{std::to_chars(to, to + kNumberRoom, value).ptr, Kind::kNumber};
}

// Digits with a point before the last `decimals` of them.
char* put_point(bool is_negative, std::string_view digits, std::size_t decimals, char* to) {
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  if (is_negative) *to++ = '-';
  const std::size_t whole = digits.size() > decimals ? digits.size() - decimals : 0;
  to = whole == 0 ? copy("0", to) : copy(digits.substr(0, whole), to);
  *to++ = '.';
  digits.remove_prefix(whole);
  to = std::fill_n(to, decimals - digits.size(), '0');
  return copy(digits, to);
}

// Digits that fill the field, a minus before them where the number is less than 0.
std::optional<Put> put_decimal_text(const Field& field, Bytes bytes, char* to) {
  std::string_view digits = text_in(bytes);
  const bool is_negative = digits.starts_with('-');
  if (is_negative) digits.remove_prefix(1);
  if (digits.empty() || digits.find_first_not_of("0123456789") != digits.npos) return {};
  if (is_negative && digits.find_first_not_of('0') == digits.npos) return {};
  return Put{put_point(is_negative, digits, static_cast<std::size_t>(field.decimals), to),
             Kind::kNumber};
}

std::optional<Put> put_decimal(const Field& field, Bytes bytes, char* to) {
  if (is_text(field.type)) return put_decimal_text(field, bytes, to);
  const std::int64_t number = whole_number_in(bytes);
  std::array<char, kNumberRoom> digits{};
  const auto end =
      std::to_chars(digits.data(), digits.data() + digits.size(), number < 0 ? -number : number);
  const std::string_view text{digits.data(), static_cast<std::size_t>(end.ptr - digits.data())};
  return Put{put_point(number < 0, text, static_cast<std::size_t>(field.decimals), to),
             Kind::kNumber};
}

std::optional<Put> put_boolean(const Field& field, Bytes bytes, char* to) {
  const auto is = [&](const std::string& word) {
    if (is_text(field.type)) return trimmed(text_in(bytes)) == trimmed(word);
    const auto number = number_in(word, INT32_MIN, INT32_MAX);
    return number && *number == whole_number_in(bytes);
  };
  if (is(field.yes)) return Put{copy("true", to), Kind::kBoolean};
  if (is(field.no)) return Put{copy("false", to), Kind::kBoolean};
  return {};
}

// A value that is no plain text and not null; nothing where there is no plain value.
std::optional<Put> put_other(const Field& field, Bytes bytes, char* to) {
  switch (field.meaning) {
    case Meaning::kDate:
    case Meaning::kDays:
      if (const auto day = day_in(field, bytes)) return Put{put_day(*day, to), Kind::kText};
      return {};
    case Meaning::kDecimal:
      return put_decimal(field, bytes, to);
    case Meaning::kBoolean:
      return put_boolean(field, bytes, to);
    default:
      break;
  }
  switch (field.type) {
    case Type::kInt:
    case Type::kLong:
      return Put{std::to_chars(to, to + kNumberRoom, whole_number_in(bytes)).ptr, Kind::kNumber};
    case Type::kFloat:
      return put_real<float>(bytes, to);
    case Type::kDouble:
      return put_real<double>(bytes, to);
    default:
      return Put{put_hex(bytes, to), Kind::kHex};
  }
}

char* put_quoted_cell(std::string_view text, char* to) {
  *to++ = '"';
  for (const char c : text) {
    if (c == '"') *to++ = '"';
    *to++ = c;
  }
  *to++ = '"';
  return to;
}

char* put_escaped(std::string_view text, char* to) {
  for (const char c : text) {
    const char letter = c == '\n'               ? 'n'
                        : c == '\r'             ? 'r'
                        : c == '\t'             ? 't'
                        : c == '"' || c == '\\' ? c
                                                : '\0';
    if (letter != '\0') *to++ = '\\';
    *to++ = letter != '\0' ? letter : c;
  }
  return to;
}

char* put_hex_cell(Bytes bytes, char* to) { return put_hex(bytes, copy(kHexMark, to)); }

char* put_hex_object(Bytes bytes, char* to) {
  return copy("\"}", put_hex(bytes, copy("{\"hex\":\"", to)));
}

// Whether readers of JSON that keep a number as a double have all of it.
bool is_exact(std::string_view number) {
  const std::size_t first = std::min(number.find_first_not_of("-0."), number.size());
  const std::string_view digits = number.substr(first);
  return digits.size() - (digits.find('.') != digits.npos ? 1 : 0) <= kExactDigits;
}

char* in_quotes(char* from, char* end) {
  std::memmove(from + 1, from, static_cast<std::size_t>(end - from));
  *from = '"';
  end[1] = '"';
  return end + 2;
}

}  // namespace

char* put_hex(Bytes bytes, char* to) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (const unsigned char byte : bytes) {
    *to++ = kDigits[byte >> 4];
    *to++ = kDigits[byte & 15];
  }
  return to;
}

Put put_plain(const Field& field, Bytes bytes, char* to) {
  if (is_null(field, bytes)) return {to, Kind::kNull};
  if (is_plain_text(field)) {
    const std::string_view text = text_of_field(field, bytes);
    if (is_printable(text, classes_of(text))) return {copy(text, to), Kind::kText};
  } else if (const auto put = put_other(field, bytes, to)) {
    return *put;
  }
  return {put_hex(bytes, to), Kind::kHex};
}

char* put_csv(const Field& field, Bytes bytes, char* to) {
  if (is_null(field, bytes)) return to;
  if (!is_plain_text(field)) {
    const auto put = put_other(field, bytes, to);
    return put ? put->end : put_hex_cell(bytes, to);
  }
  const std::string_view text = text_of_field(field, bytes);
  const unsigned classes = classes_of(text);
  if (!is_printable(text, classes) || text.starts_with(kHexMark)) return put_hex_cell(bytes, to);
  const bool is_simple = (classes & (kQuote | kComma | kReturn | kNewline)) == 0;
  return is_simple ? copy(text, to) : put_quoted_cell(text, to);
}

char* put_json(const Field& field, Bytes bytes, char* to) {
  if (is_null(field, bytes)) return copy("null", to);
  if (!is_plain_text(field)) {
    const auto put = put_other(field, bytes, to);
    if (!put) return put_hex_object(bytes, to);
    const bool is_bare =
        put->kind == Kind::kBoolean ||
        (put->kind == Kind::kNumber && (field.meaning != Meaning::kDecimal ||
                                        is_exact({to, static_cast<std::size_t>(put->end - to)})));
    return is_bare ? put->end : in_quotes(to, put->end);
  }
  const std::string_view text = text_of_field(field, bytes);
  const unsigned classes = classes_of(text);
  if (!is_printable(text, classes)) return put_hex_object(bytes, to);
  *to++ = '"';
  const bool is_simple = (classes & (kQuote | kBackslash | kReturn | kNewline | kTab)) == 0;
  to = is_simple ? copy(text, to) : put_escaped(text, to);
  *to++ = '"';
  return to;
}

}  // namespace layout
