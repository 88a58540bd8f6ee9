#include "columns.h"

#include <cstring>
#include <limits>
#include <optional>
#include <string>

#include "elements.h"
#include "layout/forms.h"

namespace zentra_module {

using layout::Bytes;
using layout::Field;
using layout::Meaning;
using layout::Type;

std::size_t width_of(Form form, const Field& field) {
  switch (form) {
    case Form::kDay:
    case Form::kDecimal:
    case Form::kUnscaled:
      return sizeof(std::int64_t);
    case Form::kNumberOrNaN:
      return field.type == Type::kFloat ? sizeof(float) : sizeof(double);
    case Form::kBoolean:
      return sizeof(std::int8_t);
    default:
      return static_cast<std::size_t>(field.length);
  }
}

bool has_form(Form form, const Field& field) {
  if (field.is_tail) return false;
  switch (form) {
    case Form::kBytes:
      return true;
    case Form::kText:
      return layout::is_text(field.type);
    case Form::kNumber:
    case Form::kNumberOrNaN:
      return layout::length_of(field.type) != 0;
    case Form::kDay:
      return field.meaning == Meaning::kDate || field.meaning == Meaning::kDays;
    case Form::kDecimal:
    case Form::kUnscaled:
      return field.meaning == Meaning::kDecimal;
    case Form::kBoolean:
      return field.meaning == Meaning::kBoolean;
  }
  return false;
}

void copy_bytes(const Records& records, std::size_t offset, std::size_t length, Room room) {
  const unsigned char* from = records.first + offset;
  std::byte* to = room.first;
  for (std::size_t i = 0; i < records.count; ++i, from += records.stride, to += room.stride) {
    copy_words(from, length, to);
  }
}

bool Column::is_copy() const {
  const bool is_real = field_.type == Type::kFloat || field_.type == Type::kDouble;
  const bool is_plain_text = form_ == Form::kText && field_.keeps_blanks && !field_.may_be_null;
  return form_ == Form::kBytes || is_plain_text || (form_ == Form::kNumber && is_real);
}

// `load` puts what it makes of a field's bytes into an element, or says no.
template <typename Element, typename Load>
std::size_t Column::put_each(const Records& records, Room room, Load load) const {
  const auto [first, stride, count] = records;  // which no store of an element changes
  const unsigned char* from = first + field_.offset;
  std::byte* to = room.first;
  for (std::size_t i = 0; i < count; ++i, from += stride, to += room.stride) {
    Element element{};
    if (!load(from, element)) return i;
    std::memcpy(to, &element, sizeof element);
  }
  return count;
}

// `load` makes a value of a field's bytes, or nothing; `null` stands for null, and for nothing
// where `lenient`.
template <typename Element, typename Load>
std::size_t Column::put_or(Element null, const Records& records, Room room, bool lenient,
                           Load load) const {
  const auto length = static_cast<std::size_t>(field_.length);
  // Null texts begin with a blank: most others are known by that.
  const bool may_be_null = field_.may_be_null;
  const bool is_text = layout::is_text(field_.type);
  return put_each<Element>(records, room, [&](const unsigned char* from, Element& element) {
    element = null;
    if (may_be_null && (!is_text || *from == ' ') && layout::is_null(field_, Bytes(from, length))) {
      return true;
    }
    const auto value = load(from);
    if (value) element = static_cast<Element>(*value);
    return value.has_value() || lenient;
  });
}

// The same for an int or a long, of which `load` gets the number.
template <typename Element, typename Load>
std::size_t Column::put_whole(Element null, const Records& records, Room room, bool lenient,
                              Load load) const {
  const auto put = [&]<typename Whole>(Whole least) {
    const bool may_be_null = field_.may_be_null;
    return put_each<Element>(records, room, [&](const unsigned char* from, Element& element) {
      const Whole number = turned<Whole>(from);
      element = null;
      if (may_be_null && number == least) return true;
      const std::optional<Element> value = load(std::int64_t{number});
      if (value) element = *value;
      return value.has_value() || lenient;
    });
  };
  if (field_.type == Type::kInt) return put(std::numeric_limits<std::int16_t>::min());
  return put(std::numeric_limits<std::int32_t>::min());
}

// `copy` gets a field's bytes and its element.
template <typename Copy>
std::size_t Column::copy_each(const Records& records, Room room, Copy copy) const {
  const auto [first, stride, count] = records;
  const unsigned char* from = first + field_.offset;
  std::byte* to = room.first;
  for (std::size_t i = 0; i < count; ++i, from += stride, to += room.stride) copy(from, to);
  return count;
}

std::size_t Column::put_text(const Records& records, Room room) const {
  const auto length = static_cast<std::size_t>(field_.length);
  if (field_.keeps_blanks) {
    return copy_each(records, room, [&](const unsigned char* from, std::byte* to) {
      if (layout::is_null(field_, Bytes(from, length))) {
        copy_trimmed(from, length, to);
      } else {
        copy_words(from, length, to);
      }
    });
  }
  const auto put = [&]<std::size_t kParts>() {
    return copy_each(records, room, [length](const unsigned char* from, std::byte* to) {
      copy_trimmed_parts<kParts>(from, length, to);
    });
  };
  switch (parts_of(length)) {
    case 1:
      return put.operator()<1>();
    case 2:
      return put.operator()<2>();
    case 3:
      return put.operator()<3>();
    case 4:
      return put.operator()<4>();
    default:
      return copy_each(records, room, [length](const unsigned char* from, std::byte* to) {
        copy_trimmed(from, length, to);
      });
  }
}

std::size_t Column::put_number(const Records& records, Room room) const {
  if (field_.type == Type::kInt) {
    return put_each<std::int16_t>(records, room, [](const unsigned char* from, auto& element) {
      element = turned<std::int16_t>(from);
      return true;
    });
  }
  return put_each<std::int32_t>(records, room, [](const unsigned char* from, auto& element) {
    element = turned<std::int32_t>(from);
    return true;
  });
}

std::size_t Column::put_number_or_nan(const Records& records, Room room) const {
  switch (field_.type) {
    case Type::kFloat:
      return put_each<float>(records, room, [](const unsigned char* from, float& element) {
        const bool is_null = at<std::uint32_t>(from) == std::numeric_limits<std::uint32_t>::max();
        element = is_null ? std::numeric_limits<float>::quiet_NaN() : at<float>(from);
        return true;
      });
    case Type::kDouble:
      return put_each<double>(records, room, [](const unsigned char* from, double& element) {
        const bool is_null = at<std::uint64_t>(from) == std::numeric_limits<std::uint64_t>::max();
        element = is_null ? kNaN : at<double>(from);
        return true;
      });
    default:
      return put_whole(kNaN, records, room, false, [](std::int64_t number) {
        return std::optional(static_cast<double>(number));
      });
  }
}

std::size_t Column::put_day(const Records& records, Room room, bool lenient) const {
  const auto length = static_cast<std::size_t>(field_.length);
  if (field_.meaning == Meaning::kDays) {
    const std::int64_t first = first_day_of(field_);
    return put_whole(kNoNumber, records, room, lenient, [first](std::int64_t number) {
      const std::int64_t day = first + number;
      return day >= kFirstDay && day <= kLastDay ? std::optional(day) : std::nullopt;
    });
  }
  if (const auto date = FastDate::of(field_)) {
    return put_each<std::int64_t>(records, room, [&](const unsigned char* from, auto& element) {
      element = date->day_number_in(from);
      return element != kNoNumber || lenient || layout::is_null(field_, Bytes(from, length));
    });
  }
  return put_or(kNoNumber, records, room, lenient, [&](const unsigned char* from) {
    return day_number_in(field_, Bytes(from, length));
  });
}

std::size_t Column::put_decimal(const Records& records, Room room, bool lenient) const {
  if (layout::is_whole_number(field_.type)) {
    const double power = kPowers.at(static_cast<std::size_t>(field_.decimals));
    return put_whole(kNaN, records, room, lenient, [power](std::int64_t number) {
      return std::optional(static_cast<double>(number) / power);
    });
  }
  const auto length = static_cast<std::size_t>(field_.length);
  return put_or(kNaN, records, room, lenient,
                [&](const unsigned char* from) { return decimal_in(field_, Bytes(from, length)); });
}

std::size_t Column::put_unscaled(const Records& records, Room room, bool lenient) const {
  if (layout::is_whole_number(field_.type)) {
    return put_whole(kNoNumber, records, room, lenient,
                     [](std::int64_t number) { return std::optional(number); });
  }
  const auto length = static_cast<std::size_t>(field_.length);
  return put_or(kNoNumber, records, room, lenient,
                [&](const unsigned char* from) { return unscaled_in(Bytes(from, length)); });
}

std::size_t Column::put_boolean(const Records& records, Room room, bool lenient) const {
  using Answer = std::optional<std::int8_t>;
  if (layout::is_whole_number(field_.type)) {
    const std::int64_t yes = number_of(field_.yes);
    const std::int64_t no = number_of(field_.no);
    return put_whole(kNoBoolean, records, room, lenient, [=](std::int64_t number) {
      return number == yes ? Answer(1) : number == no ? Answer(0) : std::nullopt;
    });
  }
  const auto length = static_cast<std::size_t>(field_.length);
  if (length == 1 && !field_.may_be_null) {
    const auto yes = static_cast<unsigned char>(field_.yes.empty() ? ' ' : field_.yes.front());
    const auto no = static_cast<unsigned char>(field_.no.empty() ? ' ' : field_.no.front());
    return put_each<std::int8_t>(records, room, [=](const unsigned char* from, auto& element) {
      const auto is_yes = static_cast<std::int8_t>(*from == yes);
      const auto is_no = static_cast<std::int8_t>(*from == no);
      element = static_cast<std::int8_t>(kNoBoolean + 2 * is_yes + is_no);
      return element != kNoBoolean || lenient;
    });
  }
  std::string yes = field_.yes;
  std::string no = field_.no;
  yes.resize(length, ' ');
  no.resize(length, ' ');
  return put_or(kNoBoolean, records, room, lenient, [&](const unsigned char* from) {
    return std::memcmp(from, yes.data(), length) == 0  ? Answer(1)
           : std::memcmp(from, no.data(), length) == 0 ? Answer(0)
                                                       : std::nullopt;
  });
}

std::size_t Column::put(const Records& records, Room room, bool lenient) const {
  if (is_copy()) {
    copy_bytes(records, static_cast<std::size_t>(field_.offset),
               static_cast<std::size_t>(field_.length), room);
    return records.count;
  }
  switch (form_) {
    case Form::kText:
      return put_text(records, room);
    case Form::kNumber:
      return put_number(records, room);
    case Form::kNumberOrNaN:
      return put_number_or_nan(records, room);
    case Form::kDay:
      return put_day(records, room, lenient);
    case Form::kDecimal:
      return put_decimal(records, room, lenient);
    case Form::kUnscaled:
      return put_unscaled(records, room, lenient);
    case Form::kBoolean:
      return put_boolean(records, room, lenient);
    default:
      return records.count;
  }
}

}  // namespace zentra_module
