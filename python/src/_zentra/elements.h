// elements: what the bytes of one field are as an element of a column.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "layout/forms.h"
#include "layout/layout.h"
#include "layout/words.h"

namespace zentra_module {

inline constexpr std::int64_t kNoNumber = std::numeric_limits<std::int64_t>::min();
inline constexpr std::int8_t kNoBoolean = -1;
inline constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

static_assert(std::endian::native == std::endian::little, "numbers are turned round here");

template <typename Value>
Value at(const void* from) {
  Value value{};
  std::memcpy(&value, from, sizeof value);
  return value;
}

// Of an int or a long.
template <typename Whole>
Whole turned(const unsigned char* from) {
  if constexpr (sizeof(Whole) == sizeof(std::uint16_t)) {
    return static_cast<Whole>(__builtin_bswap16(at<std::uint16_t>(from)));
  } else {
    return static_cast<Whole>(__builtin_bswap32(at<std::uint32_t>(from)));
  }
}

// The digits of a decimal that is kept as text: blanks around them, a sign in front.
inline std::string_view digits_in(layout::Bytes bytes) {
  std::string_view text = layout::trimmed(layout::text_in(bytes));
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  return text;
}

inline std::optional<std::int64_t> unscaled_in(layout::Bytes bytes) {
  const std::string_view digits = digits_in(bytes);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  const bool is_number = error == std::errc{} && end == digits.data() + digits.size();
  return is_number && number != kNoNumber ? std::optional(number) : std::nullopt;
}

inline constexpr std::array<double, 19> kPowers = {1,    1e1,  1e2,  1e3,  1e4,  1e5,  1e6,
                                                   1e7,  1e8,  1e9,  1e10, 1e11, 1e12, 1e13,
                                                   1e14, 1e15, 1e16, 1e17, 1e18};

// The nearest double to a decimal that is kept as text.
inline std::optional<double> decimal_in(const layout::Field& field, layout::Bytes bytes) {
  constexpr std::int64_t kExact = std::int64_t{1} << 53;
  const auto number = unscaled_in(bytes);
  const auto decimals = static_cast<std::size_t>(field.decimals);
  if (number && *number > -kExact && *number < kExact) {
    return static_cast<double>(*number) / kPowers.at(decimals);
  }
  std::string text(digits_in(bytes));
  const std::size_t sign = text.starts_with('-') ? 1 : 0;
  if (text.size() == sign || text.find_first_not_of("0123456789", sign) != text.npos) return {};
  text += "e-" + std::to_string(decimals);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc{} ? std::optional(value) : std::nullopt;
}

inline std::optional<std::int64_t> day_number_in(const layout::Field& field, layout::Bytes bytes) {
  const auto day = layout::day_in(field, bytes);
  if (!day) return {};
  return std::chrono::sys_days{*day}.time_since_epoch().count();
}

// Of the years 1 to 9999.
inline constexpr std::int64_t kFirstDay = -719162;
inline constexpr std::int64_t kLastDay = 2932896;

// The day with number 0 of a field that counts days.
inline std::int64_t first_day_of(const layout::Field& field) {
  const auto day = layout::day_in(field.form);
  return day ? std::chrono::sys_days{*day}.time_since_epoch().count() : 0;
}

// The same for a text that has nothing but eight digits, in a tenth of the time.
class FastDate {
 public:
  // Nothing where this is not for the field.
  static std::optional<FastDate> of(const layout::Field& field) {
    const std::string& form = field.form;
    const bool has_digits_only = form.find_first_not_of("YMD") == std::string::npos;
    if (!layout::is_text(field.type) || field.length != kDigits || form.size() != kDigits ||
        !has_digits_only) {
      return {};
    }
    return FastDate(form.find('Y'), form.find('M'), form.find('D'));
  }

  [[nodiscard]] std::optional<std::int64_t> day_number_in(const unsigned char* text) const {
    constexpr std::uint64_t kZeros = 0x3030303030303030;
    const std::uint64_t digits = at<std::uint64_t>(text) ^ kZeros;
    // A digit is now below ten: with six added its byte has nothing above the low four bits.
    const std::uint64_t others = (digits | (digits + 0x0606060606060606)) & 0xF0F0F0F0F0F0F0F0;
    const std::uint64_t pairs = digits * 10 + (digits >> 8);  // a pair of digits in each other byte
    const auto pair = [pairs](unsigned shift) {
      return static_cast<unsigned>(pairs >> shift) & 0xFF;
    };
    const unsigned year = pair(year_) * 100 + pair(year_ + 16);
    const unsigned month = pair(month_);
    const unsigned day = pair(day_);
    const bool leaps = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    if (others != 0 || year == 0 || month - 1 > 11 || day == 0 ||
        day > kDays[month] + (leaps && month == 2 ? 1U : 0U)) {
      return {};
    }
    const unsigned before = year - 1;
    const unsigned leap_days = before / 4 - before / 100 + before / 400;
    const unsigned days =
        before * 365 + leap_days + kBefore[month] + day + (leaps && month > 2 ? 1U : 0U);
    constexpr std::int64_t kEpoch = 719163;  // the number of 1970-01-01 when 0001-01-01 has 1
    return std::int64_t{days} - kEpoch;
  }

 private:
  static constexpr int kDigits = 8;
  static constexpr std::array<unsigned, 13> kDays = {0,  31, 28, 31, 30, 31, 30,
                                                     31, 31, 30, 31, 30, 31};
  static constexpr std::array<unsigned, 13> kBefore = {0,   0,   31,  59,  90,  120, 151,
                                                       181, 212, 243, 273, 304, 334};

  FastDate(std::size_t year, std::size_t month, std::size_t day)
      : year_(static_cast<unsigned>(year) * 8),
        month_(static_cast<unsigned>(month) * 8),
        day_(static_cast<unsigned>(day) * 8) {}

  // Where each begins, in bits.
  unsigned year_;
  unsigned month_;
  unsigned day_;
};

inline std::int64_t number_of(const std::string& word) {
  constexpr int kMost = std::numeric_limits<std::int32_t>::max();
  return layout::number_in(word, -kMost, kMost).value_or(0);
}

// memcpy() for a few words of a length that is known too late to choose one: most fields are such.
inline void copy_words(const unsigned char* from, std::size_t length, std::byte* to) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  constexpr std::size_t kMost = 128;
  if (length < kWord || length > kMost) {
    std::memcpy(to, from, length);
    return;
  }
  const auto copy = [&](std::size_t offset) {
    const auto word = at<std::uint64_t>(from + offset);
    std::memcpy(to + offset, &word, kWord);
  };
  for (std::size_t offset = 0; offset + kWord < length; offset += kWord) copy(offset);
  copy(length - kWord);
}

// Copies a text, with zero bytes in place of the blanks at its end. It goes from the end to the
// front by words, of which the last one may share bytes with the one before it.
inline void copy_trimmed(const unsigned char* from, std::size_t length, std::byte* to) {
  constexpr std::uint64_t kBlanks = 0x2020202020202020;
  constexpr std::size_t kWord = sizeof kBlanks;
  const auto put = [&](std::size_t offset, std::uint64_t word) {
    std::memcpy(to + offset, &word, kWord);
  };
  if (length < kWord) {
    while (length > 0 && from[length - 1] == ' ') to[--length] = {};
    while (length-- > 0) to[length] = std::byte{from[length]};
    return;
  }
  std::size_t last = length - kWord;
  std::uint64_t others = 0;
  while ((others = at<std::uint64_t>(from + last) ^ kBlanks) == 0) {
    put(last, 0);
    if (last == 0) return;
    last = (last - 1) / kWord * kWord;
  }
  for (std::size_t offset = 0; offset < last; offset += kWord) {
    put(offset, at<std::uint64_t>(from + offset));
  }
  const std::uint64_t kept = ~std::uint64_t{0} >> (std::countl_zero(others) & ~7);
  put(last, at<std::uint64_t>(from + last) & kept);
}

}  // namespace zentra_module
