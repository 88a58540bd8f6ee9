// Text as the bytes of a field.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>

#include "layout/encoding.h"
#include "layout/forms.h"
#include "layout/value.h"
#include "layout/words.h"

namespace layout {
namespace {

using To = std::span<unsigned char>;

constexpr std::string_view kBlanks = " \t";

std::string_view without_blanks(std::string_view text) {
  const auto first = std::min(text.find_first_not_of(kBlanks), text.size());
  text.remove_prefix(first);
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

bool is_word(std::string_view text, std::string_view lower) {
  return std::ranges::equal(text, lower, [](char one, char other) {
    return (one >= 'A' && one <= 'Z' ? static_cast<char>(one - 'A' + 'a') : one) == other;
  });
}

// A number of a text: 12.50 has the whole part 12 and the fraction 50.
struct Digits {
  bool is_negative = false;
  std::string_view whole;     // without zeros in front
  std::string_view fraction;  // without zeros at its end
};

std::optional<Digits> digits_in(std::string_view text) {
  Digits digits;
  digits.is_negative = text.starts_with('-');
  if (text.starts_with('-') || text.starts_with('+')) text.remove_prefix(1);
  const auto point = std::min(text.find('.'), text.size());
  digits.whole = text.substr(0, point);
  digits.fraction = text.substr(std::min(point + 1, text.size()));
  if (digits.whole.empty() && digits.fraction.empty()) return {};
  for (const std::string_view part : {digits.whole, digits.fraction}) {
    if (part.find_first_not_of("0123456789") != part.npos) return {};
  }
  digits.whole.remove_prefix(std::min(digits.whole.find_first_not_of('0'), digits.whole.size()));
  digits.fraction = digits.fraction.substr(0, digits.fraction.find_last_not_of('0') + 1);
  return digits;
}

// Stores one value; each step gives what is wrong, without the name of the field.
class Storing {
 public:
  Storing(const Field& field, std::string_view text, To to) : field_(field), text_(text), to_(to) {}

  std::string run(Kind kind) {
    if (kind == Kind::kNull) {
      return field_.may_be_null ? nothing() : "null, which the layout does not provide for";
    }
    if (kind == Kind::kHex) return hex();
    if (field_.meaning == Meaning::kBoolean) return boolean();
    if (kind == Kind::kBoolean) return no_value();
    if (field_.meaning == Meaning::kDate || field_.meaning == Meaning::kDays) return day();
    if (field_.meaning == Meaning::kDecimal || is_whole_number(field_.type)) return digits();
    if (field_.type == Type::kDouble) return real<double>();
    if (field_.type == Type::kFloat) return real<float>();
    return field_.type == Type::kBytes ? hex() : text();
  }

  std::string nothing() {
    if (field_.is_tail) return filled(0);
    if (field_.may_be_null && is_whole_number(field_.type)) {
      put_whole_number(least_of(field_.type), to_);
      return {};
    }
    const int byte = is_text(field_.type) ? ' ' : field_.may_be_null ? 0xFF : 0;
    std::ranges::fill(to_, static_cast<unsigned char>(byte));
    return {};
  }

  [[nodiscard]] std::size_t length() const { return length_; }

 private:
  std::string filled(std::size_t length) {
    length_ = length;
    return {};
  }
  [[nodiscard]] std::string no_value() const {
    return quoted(text_) + " is no value of the type " + name_of(field_.type);
  }
  [[nodiscard]] std::string does_not_fit(const std::string& what) const {
    const bool is_int = field_.type == Type::kInt;
    return what + " does not fit " + (is_int ? "an " : "a ") + name_of(field_.type) +
           (is_text(field_.type) ? " of " + std::to_string(to_.size()) : "");
  }
  [[nodiscard]] std::string shown_text() const {
    std::string text = quoted(text_);
    return text.substr(1, text.size() - 2);
  }

  std::string text() {
    if (!field_.keeps_blanks && !field_.is_tail) text_ = trimmed(text_);
    if (field_.characters && field_.meaning == Meaning::kPlain && !encode()) {
      return quoted(text_) + " has characters that " + field_.encoding + " has not";
    }
    if (text_.size() > to_.size()) {
      return std::to_string(text_.size()) + " bytes do not fit " + std::to_string(to_.size());
    }
    std::ranges::copy(text_, to_.begin());
    if (field_.is_tail) return filled(text_.size());
    std::ranges::fill(to_.subspan(text_.size()), ' ');
    return {};
  }

  bool encode() {
    const auto bytes = field_.characters->bytes_of(text_);
    if (bytes) text_ = encoded_ = *bytes;
    return bytes.has_value();
  }

  std::string hex() {
    const std::size_t bytes = text_.size() / 2;
    if (text_.size() % 2 != 0) return "the digits of bytes go by two";
    if (bytes > to_.size() || (bytes < to_.size() && !field_.is_tail)) {
      return std::to_string(bytes) + " bytes do not fit " + std::to_string(to_.size());
    }
    for (std::size_t i = 0; i < bytes; ++i) {
      const char* const at = text_.data() + 2 * i;
      unsigned char byte = 0;
      if (std::from_chars(at, at + 2, byte, 16).ptr != at + 2) {
        return quoted(text_) + " is no digits of bytes";
      }
      to_[i] = byte;
    }
    return field_.is_tail ? filled(bytes) : std::string();
  }

  std::string boolean() {
    text_ = without_blanks(text_);
    const bool is_yes = is_word(text_, "true");
    if (!is_yes && !is_word(text_, "false")) return quoted(text_) + " is neither true nor false";
    const std::string& word = is_yes ? field_.yes : field_.no;
    if (is_text(field_.type)) {
      text_ = word;
      return text();
    }
    put_whole_number(number_in(word, INT32_MIN, INT32_MAX).value_or(0), to_);
    return {};
  }

  std::string day() {
    text_ = without_blanks(text_);
    const auto day = day_in(text_);
    if (!day) return quoted(text_) + " is no day such as 1999-12-31";
    return put_day(field_, *day, to_) ? std::string() : does_not_fit(shown_text());
  }

  std::string digits() {
    text_ = without_blanks(text_);
    const auto digits = digits_in(text_);
    if (!digits) return quoted(text_) + " is no number";
    const auto decimals = static_cast<std::size_t>(field_.decimals);
    if (digits->fraction.size() > decimals) {
      return shown_text() + (decimals == 0
                                 ? " is no whole number"
                                 : " has more than " + std::to_string(decimals) + " decimals");
    }
    return is_text(field_.type) ? decimal_text(*digits) : whole_number(*digits);
  }

  // The digits as if there were no point, without zeros in front.
  [[nodiscard]] std::string scaled(const Digits& digits) const {
    std::string all{digits.whole};
    all += digits.fraction;
    all.append(static_cast<std::size_t>(field_.decimals) - digits.fraction.size(), '0');
    all.erase(0, std::min(all.find_first_not_of('0'), all.size()));
    return all;
  }

  // Digits that fill the field.
  std::string decimal_text(const Digits& digits) {
    const std::string all = scaled(digits);
    const bool has_minus = digits.is_negative && !all.empty();
    if (all.size() + (has_minus ? 1 : 0) > to_.size()) return does_not_fit(shown_text());
    std::ranges::fill(to_, '0');
    if (has_minus) to_[0] = '-';
    std::ranges::copy(all, to_.last(all.size()).begin());
    return {};
  }

  std::string whole_number(const Digits& digits) {
    constexpr std::size_t kMost = 18;  // digits
    const std::string all = scaled(digits);
    std::int64_t number = 0;
    std::from_chars(all.data(), all.data() + all.size(), number);
    if (digits.is_negative) number = -number;
    if (all.size() > kMost || number < least_of(field_.type) || number > most_of(field_.type)) {
      return does_not_fit(shown_text());
    }
    if (field_.may_be_null && number == least_of(field_.type)) {
      return shown_text() + " stands for null";
    }
    put_whole_number(number, to_);
    return {};
  }

  template <typename Real>
  std::string real() {
    text_ = without_blanks(text_);
    std::string_view number = text_;
    if (number.starts_with('+')) number.remove_prefix(1);
    Real value = 0;
    const char* const end = number.data() + number.size();
    const auto [behind, error] = std::from_chars(number.data(), end, value);
    const bool is_named = number.find_first_of("nN") != number.npos;  // inf, nan
    if (is_named || behind != end || error == std::errc::invalid_argument) {
      return quoted(text_) + " is no number";
    }
    if (error != std::errc{}) return does_not_fit(shown_text());
    std::memcpy(to_.data(), &value, sizeof value);
    return {};
  }

  const Field& field_;
  std::string_view text_;
  To to_;
  std::size_t length_ = 0;
  std::string encoded_{};
};

}  // namespace

Stored store(const Field& field, Kind kind, std::string_view text, To to) {
  Storing storing{field, text, to};
  std::string wrong = storing.run(kind);
  if (!wrong.empty()) return {0, field.name + ": " + wrong};
  return {field.is_tail ? storing.length() : to.size(), {}};
}

Stored store_csv(const Field& field, std::string_view cell, To to) {
  if (cell.starts_with(kHexMark)) {
    return store(field, Kind::kHex, cell.substr(kHexMark.size()), to);
  }
  if (!cell.empty()) return store(field, Kind::kText, cell, to);
  if (field.may_be_null) return store(field, Kind::kNull, {}, to);
  const bool has_empty = (is_text(field.type) && field.meaning == Meaning::kPlain) || field.is_tail;
  if (has_empty) return store(field, Kind::kText, {}, to);
  return {0, field.name + ": the value is missing"};
}

void store_nothing(const Field& field, To to) { Storing(field, {}, to).nothing(); }

}  // namespace layout
