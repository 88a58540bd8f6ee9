// columns: fields of many records as columns of numbers, days and texts.
//
// Needs   fields that lie within the records
// Never   touches the interpreter
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "layout/layout.h"

namespace zentra_module {

// What the elements of a column are.
enum class Form : std::uint8_t {
  kBytes,        // the field's bytes
  kText,         // the same; the blanks at the end of a text are zero bytes
  kNumber,       // of the field's own width, in the machine's order
  kNumberOrNaN,  // double, or float for a field of that type; NaN is null
  kDay,          // int64, days from 1970-01-01; the least is null
  kDecimal,      // double; NaN is null
  kUnscaled,     // int64, a decimal's digits without its point; the least is null
  kBoolean,      // int8 of 0 and 1; -1 is null
};

// The bytes of an element.
[[nodiscard]] std::size_t width_of(Form form, const layout::Field& field);

// Whether a field has such a form at all.
[[nodiscard]] bool has_form(Form form, const layout::Field& field);

struct Records {
  const unsigned char* first;
  std::size_t stride;  // from one to the next
  std::size_t count;
};

// Where a column's elements go.
struct Room {
  std::byte* first;
  std::ptrdiff_t stride;
};

// Puts so many bytes of each record, from an offset on.
void copy_bytes(const Records& records, std::size_t offset, std::size_t length, Room room);

class Column {
 public:
  // The field is none of the tail.
  Column(layout::Field field, Form form) : field_(std::move(field)), form_(form) {}

  // Puts the column's elements; what has no value of the field's meaning becomes null where
  // `lenient`, else it ends the work: how many were put.
  [[nodiscard]] std::size_t put(const Records& records, Room room, bool lenient) const;

  // Whether the elements are the field's bytes.
  [[nodiscard]] bool is_copy() const;
  [[nodiscard]] const layout::Field& field() const { return field_; }
  [[nodiscard]] std::size_t width() const { return width_of(form_, field_); }

 private:
  template <typename Element, typename Load>
  std::size_t put_each(const Records& records, Room room, Load load) const;
  template <typename Element, typename Load>
  std::size_t put_or(Element null, const Records& records, Room room, bool lenient,
                     Load load) const;
  template <typename Element, typename Load>
  std::size_t put_whole(Element null, const Records& records, Room room, bool lenient,
                        Load load) const;
  template <typename Copy>
  std::size_t copy_each(const Records& records, Room room, Copy copy) const;
  std::size_t put_text(const Records& records, Room room) const;
  std::size_t put_number(const Records& records, Room room) const;
  std::size_t put_number_or_nan(const Records& records, Room room) const;
  std::size_t put_day(const Records& records, Room room, bool lenient) const;
  std::size_t put_decimal(const Records& records, Room room, bool lenient) const;
  std::size_t put_unscaled(const Records& records, Room room, bool lenient) const;
  std::size_t put_boolean(const Records& records, Room room, bool lenient) const;

  layout::Field field_;
  Form form_;
};

}  // namespace zentra_module
