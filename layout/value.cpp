// The bytes of a field as text.
#include "layout/value.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

#include "layout/chunk.h"
#include "layout/encoding.h"
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

// Whether a byte is to be looked at before it may stand in a cell or a string as it is.
Chunk is_special(Chunk chunk) {
  return is_unprintable(chunk) | is_byte(chunk, '"') | is_byte(chunk, ',') | is_byte(chunk, '\\');
}

// A text of the size of a word to two of them: its front and its end, which may share bytes.
template <typename Word>
bool copy_two(std::string_view text, char* to) {
  std::array<Word, sizeof(Chunk) / sizeof(Word)> words;
  words.fill(static_cast<Word>(0x2020202020202020));  // blanks
  std::memcpy(&words[0], text.data(), sizeof(Word));
  std::memcpy(&words[1], text.data() + text.size() - sizeof(Word), sizeof(Word));
  std::memcpy(to, &words[0], sizeof(Word));
  std::memcpy(to + text.size() - sizeof(Word), &words[1], sizeof(Word));
  return !has_any(is_special(std::bit_cast<Chunk>(words)));
}

bool copy_short(std::string_view text, char* to) {
  if (text.size() >= sizeof(std::uint64_t)) return copy_two<std::uint64_t>(text, to);
  if (text.size() >= sizeof(std::uint32_t)) return copy_two<std::uint32_t>(text, to);
  Chunk chunk = Chunk{} + static_cast<unsigned char>(' ');
  for (std::size_t i = 0; i < text.size(); ++i) {
    chunk[i] = static_cast<unsigned char>(text[i]);
    to[i] = text[i];
  }
  return !has_any(is_special(chunk));
}

// Copies a text that needs nothing done about it: false where it does. `field`: the bytes that it
// begins, more of which may be copied.
bool copy_ordinary(std::string_view text, Bytes field, char* to) {
  if (field.size() < sizeof(Chunk)) return copy_short(text, to);
  Chunk special{};
  const std::size_t last = field.size() - sizeof(Chunk);
  for (std::size_t i = 0; i < text.size(); i += sizeof(Chunk)) {
    const std::size_t from = std::min(i, last);
    const Chunk chunk = chunk_at(field.data() + from);
    special |= is_special(chunk);
    put_chunk(chunk, to + from);
  }
  return !has_any(special);
}

// The same text as std::to_chars() gives, without a search, of a number with few decimals: of those
// of up to 15 digits just one is the shortest.
char* put_short(double value, char* to) {
  constexpr double kLeast = 0.001;  // less is shorter with an exponent
  constexpr double kMost = 1e9;
  constexpr double kScale = 1e4;
  constexpr std::uint64_t kUnit = 10000;
  constexpr std::uint64_t kManyZeros = 100000;  // shorter with an exponent, too
  const double size = std::fabs(value);
  if (!(size >= kLeast && size < kMost)) return nullptr;
  const auto digits = static_cast<std::uint64_t>(size * kScale + 0.5);
  if (static_cast<double>(digits) / kScale != size) return nullptr;
  const std::uint64_t whole = digits / kUnit;
  auto fraction = static_cast<unsigned>(digits % kUnit);
  if (fraction == 0 && whole % kManyZeros == 0) return nullptr;
  if (value < 0) *to++ = '-';
  to = std::to_chars(to, to + kNumberRoom, whole).ptr;
  if (fraction != 0) *to++ = '.';
  for (unsigned unit = kUnit / 10; fraction != 0; fraction %= unit, unit /= 10) {
    *to++ = static_cast<char>('0' + fraction / unit);
  }
  return to;
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

// Of a date in the form that nearly all have; nothing where it is not that.
char* put_usual_date(const Field& field, Bytes bytes, char* to) {
  if (!is_text(field.type) || !has_usual_date(field.form, bytes)) return nullptr;
  const std::string_view text = text_in(bytes);
  to = copy(text.substr(0, 4), to);
  *to++ = '-';
  to = copy(text.substr(4, 2), to);
  *to++ = '-';
  return copy(text.substr(6, 2), to);
}

// With two decimals.
char* put_hundredths(std::int64_t number, char* to) {
  constexpr std::uint32_t kWhole = 100;
  if (number < 0) *to++ = '-';
  const auto all = static_cast<std::uint32_t>(number < 0 ? -number : number);
  to = std::to_chars(to, to + kNumberRoom, all / kWhole).ptr;
  to[0] = '.';
  to[1] = static_cast<char>('0' + all % kWhole / 10);
  to[2] = static_cast<char>('0' + all % 10);
  return to + 3;
}

// The values that most fields have that are no texts, the same as put_other() gives; nothing where
// it is none of these. Without quotes it is a number, but for a date.
char* put_usual(const Field& field, Bytes bytes, char* to) {
  switch (field.meaning) {
    case Meaning::kDate:
      return put_usual_date(field, bytes, to);
    case Meaning::kDecimal:
      if (!is_whole_number(field.type) || field.decimals != 2) return nullptr;
      return put_hundredths(whole_number_in(bytes), to);
    case Meaning::kPlain:
      if (field.type == Type::kDouble) return put_short(real_in<double>(bytes), to);
      if (!is_whole_number(field.type)) return nullptr;
      return std::to_chars(to, to + kNumberRoom, whole_number_in(bytes)).ptr;
    default:
      return nullptr;
  }
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

bool is_ascii(char c) { return static_cast<unsigned char>(c) < 0x80; }

// A byte of a text in the field's encoding.
char* put_byte(const Field& field, char c, char* to) {
  if (field.characters && !is_ascii(c)) return field.characters->put(c, to);
  *to++ = c;
  return to;
}

char* put_text(const Field& field, std::string_view text, char* to) {
  if (!field.characters) return copy(text, to);
  for (const char c : text) to = put_byte(field, c, to);
  return to;
}

char* put_quoted_cell(const Field& field, std::string_view text, char* to) {
  *to++ = '"';
  for (const char c : text) {
    if (c == '"') *to++ = '"';
    to = put_byte(field, c, to);
  }
  *to++ = '"';
  return to;
}

char* put_escaped(const Field& field, std::string_view text, char* to) {
  for (const char c : text) {
    const char letter = c == '\n'               ? 'n'
                        : c == '\r'             ? 'r'
                        : c == '\t'             ? 't'
                        : c == '"' || c == '\\' ? c
                                                : '\0';
    if (letter != '\0') *to++ = '\\';
    to = put_byte(field, letter != '\0' ? letter : c, to);
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
    if (is_printable(field, text, classes_of(text))) {
      return {put_text(field, text, to), Kind::kText};
    }
  } else if (const auto put = put_other(field, bytes, to)) {
    return *put;
  }
  return {put_hex(bytes, to), Kind::kHex};
}

namespace {

// Of a text that needs quotes, or is kept in another encoding, or is none.
[[gnu::noinline]] char* put_odd_text(const Field& field, Bytes bytes, char* to) {
  const std::string_view text = text_of_field(field, bytes);
  const unsigned classes = classes_of(text);
  if (!is_printable(field, text, classes) || text.starts_with(kHexMark)) {
    return put_hex_cell(bytes, to);
  }
  const bool is_simple = (classes & (kQuote | kComma | kReturn | kNewline)) == 0;
  return is_simple ? put_text(field, text, to) : put_quoted_cell(field, text, to);
}

[[gnu::noinline]] char* put_odd_value(const Field& field, Bytes bytes, char* to) {
  const auto put = put_other(field, bytes, to);
  return put ? put->end : put_hex_cell(bytes, to);
}

}  // namespace

char* put_csv(const Field& field, Bytes bytes, char* to) {
  if (is_null(field, bytes)) return to;
  if (!is_plain_text(field)) {
    char* const end = put_usual(field, bytes, to);
    return end != nullptr ? end : put_odd_value(field, bytes, to);
  }
  const std::string_view text = text_of_field(field, bytes);
  const bool is_ordinary = copy_ordinary(text, bytes, to) && !text.starts_with(kHexMark);
  return is_ordinary ? to + text.size() : put_odd_text(field, bytes, to);
}

char* put_json(const Field& field, Bytes bytes, char* to) {
  if (is_null(field, bytes)) return copy("null", to);
  if (!is_plain_text(field)) {
    if (char* const end = put_usual(field, bytes, to)) {
      return field.meaning == Meaning::kDate ? in_quotes(to, end) : end;
    }
    const auto put = put_other(field, bytes, to);
    if (!put) return put_hex_object(bytes, to);
    const bool is_bare =
        put->kind == Kind::kBoolean ||
        (put->kind == Kind::kNumber && (field.meaning != Meaning::kDecimal ||
                                        is_exact({to, static_cast<std::size_t>(put->end - to)})));
    return is_bare ? put->end : in_quotes(to, put->end);
  }
  const std::string_view text = text_of_field(field, bytes);
  if (copy_ordinary(text, bytes, to + 1)) {
    to[0] = '"';
    to[text.size() + 1] = '"';
    return to + text.size() + 2;
  }
  const unsigned classes = classes_of(text);
  if (!is_printable(field, text, classes)) return put_hex_object(bytes, to);
  *to++ = '"';
  const bool is_simple = (classes & (kQuote | kBackslash | kReturn | kNewline | kTab)) == 0;
  to = is_simple ? put_text(field, text, to) : put_escaped(field, text, to);
  *to++ = '"';
  return to;
}

}  // namespace layout
