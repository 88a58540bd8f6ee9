// value: the bytes of a field as text, and text as the bytes of a field.
//
//   char* end = put_csv(field, bytes_of(field, record, tail), to);
//   Stored stored = store(field, Kind::kText, "12.50", room);     // stored.wrong: why not
//
// Needs   fields of read() or of a draft
// Keeps   V1 whatever bytes a field has, its value stores the same bytes again. What no plain value
//            gives back (text that is not printable UTF-8, a date that is none, digits of another
//            form) has its bytes in hexadecimal for its value.
//         V2 nothing is allocated for a value that is put
// Never   looks beyond the bytes of the field
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "layout/layout.h"

namespace layout {

// What the text of a value is.
enum class Kind : std::uint8_t {
  kNull,     // nothing
  kBoolean,  // true or false
  kNumber,   // as JSON has it: -12.50, 1e+22
  kText,     // UTF-8; a date is 2026-11-22
  kHex,      // two digits for each byte
};

// The most bytes of text for a byte of a field: a character in UTF-8.
inline constexpr std::size_t kMostForByte = 3;
// The most room that the text of a value takes, in any of the forms below.
[[nodiscard]] constexpr std::size_t text_room(std::size_t bytes) {
  return kMostForByte * bytes + 64;
}

// The bytes of a field of a record, of which `tail` is what lies behind the record length.
[[nodiscard]] inline Bytes bytes_of(const Field& field, Bytes record, Bytes tail) {
  if (field.is_tail) return tail;
  return record.subspan(static_cast<std::size_t>(field.offset),
                        static_cast<std::size_t>(field.length));
}

// Each puts text_room() at most to `to`, which has that room, and gives the end.

struct Put {
  char* end;
  Kind kind;
};
// The value as plain text. Only of fields of the type bytes is kHex what one expects.
[[nodiscard]] Put put_plain(const Field& field, Bytes bytes, char* to);
// The value as a cell of CSV: nothing for null; kHexMark and digits for what has no plain value,
// and for a text that begins so.
inline constexpr std::string_view kHexMark = "hex:";
[[nodiscard]] char* put_csv(const Field& field, Bytes bytes, char* to);
// The value in JSON: {"hex":"0a"} for what has no plain value. A decimal of more than 15 digits is
// a string, for most readers of JSON round such numbers.
[[nodiscard]] char* put_json(const Field& field, Bytes bytes, char* to);
// Two digits for each byte.
[[nodiscard]] char* put_hex(Bytes bytes, char* to);

struct Stored {
  std::size_t length = 0;  // of the tail; any other field is filled
  std::string wrong{};     // "amount: 70000 does not fit an int"; empty: it is stored
};
// Stores a value. `to` has the field's bytes; for the tail, the room behind the record. kNumber and
// kText are the same: what counts is the field.
[[nodiscard]] Stored store(const Field& field, Kind kind, std::string_view text,
                           std::span<unsigned char> to);
// Stores a cell of CSV, without its quotes.
[[nodiscard]] Stored store_csv(const Field& field, std::string_view cell,
                               std::span<unsigned char> to);
// Stores what a field has of which nothing is told: null, else no text, the number 0, zero bytes.
// The tail: no byte.
void store_nothing(const Field& field, std::span<unsigned char> to);

}  // namespace layout
