#include "layout/forms.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "layout/chunk.h"
#include "layout/encoding.h"
#include "layout/words.h"

namespace layout {
namespace {

constexpr std::array<unsigned char, 256> make_classes() {
  std::array<unsigned char, 256> classes{};
  for (std::size_t byte = 0; byte < classes.size(); ++byte) {
    classes.at(byte) = byte >= 0x80 ? kHigh : byte < 0x20 || byte == 0x7F ? kControl : 0;
  }
  classes['\r'] = kReturn;
  classes['\n'] = kNewline;
  classes['\t'] = kTab;
  classes['"'] = kQuote;
  classes[','] = kComma;
  classes['\\'] = kBackslash;
  return classes;
}
constexpr std::array<unsigned char, 256> kClasses = make_classes();

unsigned class_of(char c) { return kClasses[static_cast<unsigned char>(c)]; }

using Word = std::uint64_t;
constexpr Word each(unsigned char byte) { return ~Word{0} / 0xFF * byte; }

// Whether a byte of the word is that one. The top bit of each byte tells: beyond the first that is,
// perhaps falsely.
constexpr Word is_any(Word word, unsigned char byte) {
  const Word other = word ^ each(byte);
  return (other - each(1)) & ~other;
}

// Whether eight bytes have no class.
bool is_ordinary(const char* at) {
  Word word = 0;
  std::memcpy(&word, at, sizeof word);
  const Word low = (word - each(0x20)) & ~word;
  const Word any =
      word | low | is_any(word, '"') | is_any(word, ',') | is_any(word, '\\') | is_any(word, 0x7F);
  return (any & each(0x80)) == 0;
}

// Whether the bytes are UTF-8 of characters from `least` on, beside those of one byte.
bool has_characters(std::string_view text, std::uint32_t least) {
  while (!text.empty()) {
    if (text.size() >= sizeof(Chunk) && is_ascii(chunk_at(text.data()))) {
      text.remove_prefix(sizeof(Chunk));
      continue;
    }
    const auto [size, code] = character_in(text);
    if (size == 0 || (size > 1 && code < least)) return false;
    text.remove_prefix(size);
  }
  return true;
}

bool has_lone_return(std::string_view text) {
  for (auto at = text.find('\r'); at != text.npos; at = text.find('\r', at + 1)) {
    if (at + 1 == text.size() || text[at + 1] != '\n') return true;
  }
  return false;
}

bool all_are(Bytes bytes, unsigned char byte) {
  return std::ranges::all_of(bytes, [byte](unsigned char one) { return one == byte; });
}

// Two digits of a year are one of these hundred.
constexpr int kFirstOfTwoDigits = 1969;

int full_year(int two_digits) {
  const int century = two_digits >= kFirstOfTwoDigits % 100 ? 1900 : 2000;
  return century + two_digits;
}

// The runs of one character that a form is made of.
template <typename Each>
bool each_run(std::string_view form, const Each& each) {
  while (!form.empty()) {
    const auto run = std::min(form.find_first_not_of(form.front()), form.size());
    if (!each(form.substr(0, run))) return false;
    form.remove_prefix(run);
  }
  return true;
}

constexpr std::string_view kDigitsOnly = "YYYYMMDD";

// The number of so many digits; less than 0 where there are others.
int number_of(const char* at, std::size_t digits) {
  int number = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    if (at[i] < '0' || at[i] > '9') return -1;
    number = number * 10 + (at[i] - '0');
  }
  return number;
}

std::optional<Day> day_by_form(std::string_view form, std::string_view text) {
  if (form == kDigitsOnly) {  // the form that nearly all have
    const int year = number_of(text.data(), 4);
    const int month = number_of(text.data() + 4, 2);
    const int day = number_of(text.data() + 6, 2);
    return month > 0 && day > 0 ? day_of(year, month, day) : std::nullopt;
  }
  int year = 0;
  int month = 0;
  int day = 0;
  const bool fits = each_run(form, [&](std::string_view run) {
    const std::string_view part = text.substr(0, run.size());
    text.remove_prefix(run.size());
    int* const to = run.front() == 'Y'   ? &year
                    : run.front() == 'M' ? &month
                    : run.front() == 'D' ? &day
                                         : nullptr;
    if (to == nullptr) return part == run;
    *to = number_of(part.data(), part.size());
    if (*to < 0) return false;
    if (to == &year && run.size() == 2) year = full_year(year);
    return true;
  });
  return fits ? day_of(year, month, day) : std::nullopt;
}

void put_digits(int number, std::size_t count, char* to) {
  for (std::size_t i = count; i-- > 0; number /= 10) to[i] = static_cast<char>('0' + number % 10);
}

// `to` has room for the form.
bool put_by_form(std::string_view form, Day day, char* to) {
  const int year = static_cast<int>(day.year());
  return each_run(form, [&](std::string_view run) {
    switch (run.front()) {
      case 'Y':
        if (run.size() == 2 && full_year(year % 100) != year) return false;
        put_digits(year, run.size(), to);
        break;
      case 'M':
        put_digits(static_cast<int>(static_cast<unsigned>(day.month())), 2, to);
        break;
      case 'D':
        put_digits(static_cast<int>(static_cast<unsigned>(day.day())), 2, to);
        break;
      default:
        std::ranges::copy(run, to);
    }
    to += run.size();
    return true;
  });
}

constexpr std::size_t kMostDigits = 8;  // of a date that is a number: YYYYMMDD

std::optional<Day> day_in_digits(std::string_view form, std::int64_t number) {
  std::array<char, kMostDigits> digits{};
  if (form.size() > digits.size() || number < 0 || number > 99999999) return {};
  if (form.size() == 6 && number > 999999) return {};
  put_digits(static_cast<int>(number), form.size(), digits.data());
  return day_by_form(form, {digits.data(), form.size()});
}

// The day with number 0.
std::chrono::sys_days first_day(const Field& field) {
  const auto day = day_in(field.form);
  return day ? std::chrono::sys_days{*day} : std::chrono::sys_days{};
}

std::optional<Day> day_by_number(const Field& field, std::int64_t number) {
  constexpr std::int64_t kMost = std::int64_t{366} * 10000;  // no type of years has room for all
  if (number < -kMost || number > kMost) return {};
  const Day day{first_day(field) + std::chrono::days{number}};
  const int year = static_cast<int>(day.year());
  return year >= 1 && year <= 9999 ? std::optional(day) : std::nullopt;
}

}  // namespace

unsigned classes_of(std::string_view text) {
  unsigned classes = 0;
  for (; text.size() >= sizeof(Word); text.remove_prefix(sizeof(Word))) {
    if (is_ordinary(text.data())) continue;
    for (const char c : text.substr(0, sizeof(Word))) classes |= class_of(c);
  }
  for (const char c : text) classes |= class_of(c);
  return classes;
}

Character character_in(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) return {1, first};
  const std::size_t size = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (size == 0 || first > 0xF4 || text.size() < size) return {0, 0};
  std::uint32_t code = first & (0x7FU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) return {0, 0};
    code = code << 6 | (next & 0x3FU);
  }
  const bool overlong = (size == 3 && code < 0x800) || (size == 4 && code < 0x10000);
  const bool is_half = code >= 0xD800 && code <= 0xDFFF;
  return overlong || is_half || code > 0x10FFFF ? Character{0, 0} : Character{size, code};
}

bool is_utf8(std::string_view text) { return has_characters(text, 0); }

bool is_printable(std::string_view text, unsigned classes) {
  if ((classes & (kControl | kHigh | kReturn)) == 0) return true;
  if ((classes & kControl) != 0) return false;
  if ((classes & kReturn) != 0 && has_lone_return(text)) return false;
  constexpr std::uint32_t kBehindControls = 0xA0;
  return (classes & kHigh) == 0 || has_characters(text, kBehindControls);
}

bool is_printable(const Field& field, std::string_view text, unsigned classes) {
  if (!field.characters) return is_printable(text, classes);
  return is_printable(text, classes & ~unsigned{kHigh}) && field.characters->has_all(text);
}

std::int64_t whole_number_in(Bytes bytes) {
  std::uint32_t number = 0;
  for (const unsigned char byte : bytes) number = number << 8 | byte;
  if (bytes.size() == 2) return static_cast<std::int16_t>(number);
  return static_cast<std::int32_t>(number);
}

void put_whole_number(std::int64_t number, std::span<unsigned char> to) {
  auto rest = static_cast<std::uint64_t>(number);
  for (std::size_t i = to.size(); i-- > 0; rest >>= 8) to[i] = static_cast<unsigned char>(rest);
}

bool stands_for_null(const Field& field, Bytes bytes) {
  if (field.is_tail) return bytes.empty();
  if (is_text(field.type)) return all_are(bytes, ' ');
  if (is_whole_number(field.type)) return whole_number_in(bytes) == least_of(field.type);
  return all_are(bytes, 0xFF);
}

bool has_usual_date(std::string_view form, Bytes bytes) {
  const std::size_t length = kDigitsOnly.size();
  if (form != kDigitsOnly || bytes.size() < length) return false;
  const std::string_view text = text_in(bytes);
  const int year = number_of(text.data(), 4);
  const int month = number_of(text.data() + 4, 2);
  const int day = number_of(text.data() + 6, 2);
  constexpr int kInAll = 28;  // days that each month has
  const bool is_day = year >= 1 && month >= 1 && month <= 12 && day >= 1 &&
                      (day <= kInAll || day_of(year, month, day).has_value());
  return is_day && (bytes.size() == length || trimmed(text.substr(length)).empty());
}

std::optional<Day> day_of(int year, int month, int day) {
  const Day made{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                 std::chrono::day{static_cast<unsigned>(day)}};
  return year >= 1 && year <= 9999 && made.ok() ? std::optional(made) : std::nullopt;
}

std::optional<Day> day_in(std::string_view iso) {
  constexpr std::string_view kForm = "YYYY-MM-DD";
  if (iso.size() != kForm.size()) return {};
  return day_by_form(kForm, iso);
}

char* put_day(Day day, char* to) {
  put_digits(static_cast<int>(day.year()), 4, to);
  to[4] = to[7] = '-';
  put_digits(static_cast<int>(static_cast<unsigned>(day.month())), 2, to + 5);
  put_digits(static_cast<int>(static_cast<unsigned>(day.day())), 2, to + 8);
  return to + 10;
}

std::optional<Day> day_in(const Field& field, Bytes bytes) {
  if (field.meaning == Meaning::kDays) return day_by_number(field, whole_number_in(bytes));
  if (is_whole_number(field.type)) return day_in_digits(field.form, whole_number_in(bytes));
  const std::string_view text = text_in(bytes);
  const std::size_t length = field.form.size();
  if (text.size() < length || !trimmed(text.substr(length)).empty()) return {};
  return day_by_form(field.form, text.substr(0, length));
}

bool put_day(const Field& field, Day day, std::span<unsigned char> to) {
  if (field.meaning == Meaning::kDays) {
    const std::int64_t number = (std::chrono::sys_days{day} - first_day(field)).count();
    if (number < least_of(field.type) || number > most_of(field.type)) return false;
    if (field.may_be_null && number == least_of(field.type)) return false;
    put_whole_number(number, to);
    return true;
  }
  if (is_whole_number(field.type)) {
    std::array<char, kMostDigits> digits{};
    if (field.form.size() > digits.size() || !put_by_form(field.form, day, digits.data())) {
      return false;
    }
    std::int64_t number = 0;
    std::from_chars(digits.data(), digits.data() + field.form.size(), number);
    put_whole_number(number, to);
    return true;
  }
  if (field.form.size() > to.size()) return false;
  std::ranges::fill(to, ' ');
  return put_by_form(field.form, day, reinterpret_cast<char*>(to.data()));
}

}  // namespace layout
