// fields: typed fields of records, and records in memory. Part of isam.hpp.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "isam.h"

namespace zentra {

namespace detail {

// The bytes of one field. Throws std::out_of_range for a record that ends before.
template <typename Byte>
std::span<Byte> bytes_of_field(std::span<Byte> record, std::size_t offset, std::size_t length) {
  if (offset > record.size() || length > record.size() - offset) {
    throw std::out_of_range("zentra: the record ends before the field");
  }
  return record.subspan(offset, length);
}

// Fills the field with the text and blanks behind it.
inline void store_text(std::span<char> field, std::string_view text) {
  if (text.size() > field.size()) throw std::length_error("zentra: text longer than its field");
  std::fill(std::copy(text.begin(), text.end(), field.begin()), field.end(), ' ');
}

// The conversions of isam.h under one name, so that Number finds that of its type.
inline void load(const char* from, std::int16_t& value) { value = ldint(from); }
inline void load(const char* from, std::int32_t& value) { value = ldlong(from); }
inline void load(const char* from, double& value) { value = lddbl(from); }
inline void load(const char* from, float& value) { value = ldfloat(from); }
inline void store(std::int16_t value, char* to) { stint(value, to); }
inline void store(std::int32_t value, char* to) { stlong(value, to); }
inline void store(double value, char* to) { stdbl(to, value); }
inline void store(float value, char* to) { stfloat(to, value); }

// A number at a fixed offset, stored as the key type `Type` wants it.
template <typename Stored, int Offset, int Type>
struct Number {
  static_assert(Offset >= 0 && Offset + int{sizeof(Stored)} <= INT16_MAX);
  static constexpr int offset = Offset;
  static constexpr int length = sizeof(Stored);
  static constexpr int type = Type;

  [[nodiscard]] static Stored get(std::span<const char> record) {
    Stored value;
    load(bytes_of_field(record, offset, length).data(), value);
    return value;
  }
  static void set(std::span<char> record, Stored value) {
    store(value, bytes_of_field(record, offset, length).data());
  }
};

}  // namespace detail

// Characters, padded with blanks. get() cuts all blanks at the end off; set() throws
// std::length_error for a text longer than the field. get() and set() of every kind of field throw
// std::out_of_range when the record ends before the field does, as a record of variable length may.
template <int Offset, int Length>
struct Text {
  static_assert(Offset >= 0 && Length > 0 && Offset + Length <= INT16_MAX);
  static constexpr int offset = Offset;
  static constexpr int length = Length;
  static constexpr int type = KT_CHAR;

  [[nodiscard]] static std::string get(std::span<const char> record) {
    const auto field = detail::bytes_of_field(record, offset, length);
    const std::string_view text{field.data(), field.size()};
    return std::string(text.substr(0, text.find_last_not_of(' ') + 1));
  }
  static void set(std::span<char> record, std::string_view text) {
    detail::store_text(detail::bytes_of_field(record, offset, length), text);
  }
};

// Signed numbers of 2 and 4 bytes, most significant byte first.
template <int Offset>
using Int16 = detail::Number<std::int16_t, Offset, KT_INT>;
template <int Offset>
using Int32 = detail::Number<std::int32_t, Offset, KT_LONG>;
// Floating-point numbers in the machine's form, of 8 and 4 bytes.
template <int Offset>
using Double = detail::Number<double, Offset, KT_DOUBLE>;
template <int Offset>
using Float = detail::Number<float, Offset, KT_FLOAT>;

// Any of the above, or a type of the application's with these members, and set() where records are
// changed by it. A field has no state: an object of it only names it, as in
//
//   constexpr zentra::Text<8, 24> kName;
//   record.get(kName)
template <typename T>
concept Field = requires(std::span<const char> record) {
  { T::offset } -> std::convertible_to<int>;
  { T::length } -> std::convertible_to<int>;
  { T::type } -> std::convertible_to<int>;
  T::get(record);
};

// A record in memory: its bytes, and the number that it had when File read or added it last.
class Record {
 public:
  // All bytes are blanks: a text is empty, but a number has no sensible value before set().
  explicit Record(std::size_t length) : bytes_(length, ' ') {}

  template <Field F>
  [[nodiscard]] auto get(F /*field*/) const {
    return F::get(bytes());
  }
  template <Field F, typename V>
  Record& set(F /*field*/, const V& value) {
    F::set(bytes(), value);
    return *this;
  }

  [[nodiscard]] std::span<const char> bytes() const { return bytes_; }
  [[nodiscard]] std::span<char> bytes() { return bytes_; }
  [[nodiscard]] std::size_t size() const { return bytes_.size(); }
  // Changes the length of a record of variable length; new bytes are blanks.
  void resize(std::size_t length) { bytes_.resize(length, ' '); }
  // 0 for a record that was never in a file.
  [[nodiscard]] std::int32_t number() const { return number_; }

 private:
  friend class File;

  std::vector<char> bytes_;
  std::int32_t number_ = 0;
};

}  // namespace zentra
