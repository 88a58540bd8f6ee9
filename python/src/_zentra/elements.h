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
#include <utility>

#include "layout/forms.h"
#include "layout/layout.h"
#include "layout/words.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

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

// The digits of a decimal that is kept as text, a minus before them where it is less than 0: they
// fill the field. Nothing where they are no such.
inline std::string_view digits_in(layout::Bytes bytes) {
  const std::string_view text = layout::text_in(bytes);
  const std::string_view digits = text.substr(text.starts_with('-') ? 1 : 0);
  const bool are_digits = digits.find_first_not_of("0123456789") == digits.npos;
  const bool is_minus_zero =
      digits.size() < text.size() && digits.find_first_not_of('0') == digits.npos;
  return !digits.empty() && are_digits && !is_minus_zero ? text : std::string_view();
}

inline std::optional<std::int64_t> unscaled_in(layout::Bytes bytes) {
  const std::string_view digits = digits_in(bytes);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return error == std::errc{} && number != kNoNumber ? std::optional(number) : std::nullopt;
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
  if (text.empty()) return {};
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

// The days of a year by month and day, from 1; 0: no such day.
inline constexpr unsigned kLastMonth = 15;  // as far as there is room
inline constexpr unsigned kLastOfMonth = 31;
using DaysOfYear = std::array<std::uint16_t, (kLastMonth + 1) * (kLastOfMonth + 1)>;
constexpr DaysOfYear days_of(std::chrono::year year) {
  DaysOfYear days{};
  std::uint16_t number = 0;
  for (unsigned month = 1; month <= 12; ++month) {
    for (unsigned day = 1; day <= kLastOfMonth; ++day) {
      const auto there = year / std::chrono::month(month) / std::chrono::day(day);
      if (there.ok()) days[month * (kLastOfMonth + 1) + day] = ++number;
    }
  }
  return days;
}
// Of a common year, and of one that leaps.
inline constexpr std::array<DaysOfYear, 2> kDaysOfYear = {days_of(std::chrono::year(2001)),
                                                          days_of(std::chrono::year(2000))};

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

  // kNoNumber where they are no day.
  [[nodiscard]] std::int64_t day_number_in(const unsigned char* text) const {
    constexpr std::uint64_t kZeros = 0x3030303030303030;
    const std::uint64_t digits = at<std::uint64_t>(text) ^ kZeros;
    // A digit is now below ten: with six added its byte has nothing above the low four bits.
    const std::uint64_t others = (digits | (digits + 0x0606060606060606)) & 0xF0F0F0F0F0F0F0F0;
    // Each other byte has the number of a pair of digits.
    const auto pairs = std::bit_cast<std::array<std::uint8_t, 8>>(digits * 10 + (digits >> 8));
    const unsigned century = pairs[year_];
    const unsigned year = pairs[year_ + 2];  // of the century
    const unsigned month = pairs[month_];
    const unsigned day = pairs[day_];
    if (others != 0 || month > kLastMonth || day > kLastOfMonth) return kNoNumber;
    const unsigned leaps = ((year == 0 ? century : year) & 3) == 0 ? 1 : 0;
    const unsigned in_year = kDaysOfYear[leaps][month * (kLastOfMonth + 1) + day];
    if (in_year == 0 || (century | year) == 0) return kNoNumber;
    // Days before the century, of which each fourth begins with a leap year, and before the year.
    const unsigned before_century = century * 36524 + (century + 3) / 4;
    const unsigned skipped = year != 0 && century % 4 != 0 ? 1 : 0;
    const unsigned before_year = year * 365 + (year + 3) / 4 - skipped;
    constexpr std::int64_t kEpoch = 719529;  // the number of 1970-01-01 when 0000-01-01 has 1
    return std::int64_t{before_century + before_year + in_year} - kEpoch;
  }

 private:
  static constexpr int kDigits = 8;
  FastDate(std::size_t year, std::size_t month, std::size_t day)
      : year_(year), month_(month), day_(day) {}

  // The places where each begins.
  std::size_t year_;
  std::size_t month_;
  std::size_t day_;
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

inline constexpr std::size_t kPartOfText = 16;

// In how many parts a text is copied at once; 0: in none.
inline std::size_t parts_of(std::size_t length) {
#ifdef __SSE2__
  constexpr std::size_t kMost = 4;
  const std::size_t parts = (length + kPartOfText - 1) / kPartOfText;
  return length >= kPartOfText && parts <= kMost ? parts : 0;
#else
  return 0;
#endif
}

// The same in so many parts, with no step that depends on where the blanks begin: the parts, of
// which the last one may share bytes with the one before it, tell where they do, and each is put
// with the zero bytes that it has from there on.
template <std::size_t kParts>
void copy_trimmed_parts(const unsigned char* from, std::size_t length, std::byte* to) {
#ifdef __SSE2__
  constexpr std::size_t kMost = kParts * kPartOfText;
  alignas(64) static constexpr auto kKeeps = [] {
    std::array<unsigned char, 2 * kMost> bytes{};
    for (std::size_t i = 0; i < kMost; ++i) bytes[i] = 0xFF;
    return bytes;
  }();
  const auto part_at = [](const unsigned char* bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
  };
  struct Part {
    std::size_t offset;
    __m128i bytes;
  };
  const auto part_of = [&](std::size_t index) {
    const std::size_t offset = index + 1 < kParts ? index * kPartOfText : length - kPartOfText;
    return Part{offset, part_at(from + offset)};
  };
  const auto blanks_in = [](Part part) {
    const __m128i is_blank = _mm_cmpeq_epi8(part.bytes, _mm_set1_epi8(' '));
    return std::uint64_t{static_cast<unsigned>(_mm_movemask_epi8(is_blank))} << part.offset;
  };
  const auto copy = [&](auto... parts) {
    const std::uint64_t others = (blanks_in(parts) | ...) ^ (~std::uint64_t{0} >> (64 - length));
    const unsigned char* const keeps = kKeeps.data() + kMost - std::bit_width(others);
    const auto put = [&](Part part) {
      const __m128i kept = _mm_and_si128(part.bytes, part_at(keeps + part.offset));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(to + part.offset), kept);
    };
    (put(parts), ...);
  };
  [&]<std::size_t... kIndexes>(std::index_sequence<kIndexes...>) { copy(part_of(kIndexes)...); }
  (std::make_index_sequence<kParts>());
#else
  copy_trimmed(from, length, to);
#endif
}

}  // namespace zentra_module
