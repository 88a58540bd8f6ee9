// key: descriptions of indexes, and values to look for. Part of isam.hpp.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <variant>

#include "isam.h"
#include "isam/fields.hpp"

namespace zentra {

// Describes an index. field() and the calls below it return a new description; more than MAXPARTS
// parts, or one beyond any record, throw std::length_error. The library checks the rest when the
// index is made.
class Key {
 public:
  // A key, still without parts, that no two records share.
  [[nodiscard]] static constexpr Key unique() { return Key{}; }
  // The same, over these fields.
  template <Field... F>
  [[nodiscard]] static constexpr Key of(F... fields) {
    Key key;
    ((key = key.field(fields)), ...);
    return key;
  }
  // The order of record numbers, which needs no index.
  [[nodiscard]] static constexpr Key record_order() { return Key{}; }

  constexpr Key() = default;
  // A description as isam.h has it, for instance of an index of a file.
  constexpr explicit Key(const keydescr& description) : key_(description) {}

  template <Field F>
  [[nodiscard]] constexpr Key field(F /*field*/) const {
    return part(F::offset, F::length, F::type);
  }
  // Characters in the order of their bytes, or of the client's locale.
  [[nodiscard]] constexpr Key text(int offset, int length) const {
    return part(offset, length, KT_CHAR);
  }
  [[nodiscard]] constexpr Key locale_text(int offset, int length) const {
    return part(offset, length, KT_LOCALE);
  }
  // Numbers as the fields Int16, Int32, Double and Float store them.
  [[nodiscard]] constexpr Key integer(int offset) const { return part(offset, 2, KT_INT); }
  [[nodiscard]] constexpr Key long_integer(int offset) const { return part(offset, 4, KT_LONG); }
  [[nodiscard]] constexpr Key double_number(int offset) const { return part(offset, 8, KT_DOUBLE); }
  [[nodiscard]] constexpr Key float_number(int offset) const { return part(offset, 4, KT_FLOAT); }

  // The part added last sorts from the greatest down.
  [[nodiscard]] constexpr Key descending() const {
    if (key_.nparts == 0) throw std::length_error("zentra: descending() needs a key part");
    Key key = *this;
    keypart& last = key.key_.part[key_.nparts - 1];
    last.type = static_cast<std::int16_t>(last.type | KT_DESC);
    return key;
  }
  // Records may share the key after all.
  [[nodiscard]] constexpr Key duplicates() const { return flagged(KF_DUPS); }
  // The index stores keys in short.
  [[nodiscard]] constexpr Key compressed() const { return flagged(KF_COMPRESS); }

  [[nodiscard]] constexpr const keydescr& description() const { return key_; }
  [[nodiscard]] constexpr std::span<const keypart> parts() const {
    return std::span<const keypart>(key_.part).first(static_cast<std::size_t>(key_.nparts));
  }

 private:
  [[nodiscard]] constexpr Key part(int offset, int length, int type) const {
    if (key_.nparts == MAXPARTS) throw std::length_error("zentra: too many key parts");
    if (!std::in_range<std::int16_t>(offset) || !std::in_range<std::int16_t>(length)) {
      throw std::length_error("zentra: key part beyond any record");
    }
    Key key = *this;
    key.key_.part[key.key_.nparts++] = {static_cast<std::int16_t>(offset),
                                        static_cast<std::int16_t>(length),
                                        static_cast<std::int16_t>(type)};
    return key;
  }
  [[nodiscard]] constexpr Key flagged(int flags) const {
    Key key = *this;
    key.key_.flags = static_cast<std::int16_t>(key_.flags | flags);
    return key;
  }

  keydescr key_{};
};

// A value to look for in one part of a key. A text refers to the caller's characters.
class KeyValue {
 public:
  template <typename T>
  requires std::convertible_to<const T&, std::string_view> KeyValue(const T& text)
      : value_(std::string_view(text)) {}
  template <std::integral T>
  KeyValue(T number) : value_(checked<std::int64_t>(number)) {}
  template <std::floating_point T>
  KeyValue(T number) : value_(static_cast<double>(number)) {}

  // Stores the value as the part wants it. Throws std::invalid_argument for a text in place of a
  // number or the other way round, std::out_of_range and std::length_error for what does not fit.
  void store(std::span<char> record, const keypart& part) const {
    const auto field = detail::bytes_of_field(record, static_cast<std::size_t>(part.start),
                                              static_cast<std::size_t>(part.length));
    switch (part.type & ~KT_DESC) {
      case KT_CHAR:
      case KT_LOCALE:
        return detail::store_text(field, as<std::string_view>());
      case KT_INT:
        return detail::store(checked<std::int16_t>(as<std::int64_t>()), field.data());
      case KT_LONG:
        return detail::store(checked<std::int32_t>(as<std::int64_t>()), field.data());
      case KT_DOUBLE:
        return detail::store(as_number(), field.data());
      case KT_FLOAT:
        return detail::store(static_cast<float>(as_number()), field.data());
      default:
        throw std::invalid_argument("zentra: no values for key parts with a collating table");
    }
  }

 private:
  // Throws std::out_of_range when the number is none of that type.
  template <std::integral To, std::integral From>
  static To checked(From number) {
    // in_range() does not take these two, which any field has room for.
    if constexpr (!std::same_as<From, bool> && !std::same_as<From, char>) {
      if (!std::in_range<To>(number)) throw std::out_of_range("zentra: number beyond its field");
    }
    return static_cast<To>(number);
  }
  template <typename T>
  [[nodiscard]] const T& as() const {
    if (const T* value = std::get_if<T>(&value_)) return *value;
    throw std::invalid_argument("zentra: value of another type than its key part");
  }
  [[nodiscard]] double as_number() const {
    const auto* whole = std::get_if<std::int64_t>(&value_);
    return whole != nullptr ? static_cast<double>(*whole) : as<double>();
  }

  std::variant<std::string_view, std::int64_t, double> value_;
};

}  // namespace zentra
