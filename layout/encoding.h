// encoding: texts of a character set with one byte a character, as UTF-8 and back.
//
// Needs   the conversions of the system's C library
// Keeps   no two bytes are the same character, so that each text comes back as it was
#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace layout {

class Encoding {
 public:
  // By a name that the system has for it, such as latin1 or CP850. Null where it knows none, or the
  // set has more bytes a character, or other characters in the places of ASCII.
  [[nodiscard]] static std::shared_ptr<const Encoding> named(const std::string& name);

  // Whether every byte from 0x80 on is a character that can be printed.
  [[nodiscard]] bool has_all(std::string_view text) const;
  // The character of a byte that is one, in UTF-8.
  [[nodiscard]] char* put(char byte, char* to) const;
  // A text in UTF-8. Nothing where the set lacks one of its characters.
  [[nodiscard]] std::optional<std::string> bytes_of(std::string_view text) const;

 private:
  [[nodiscard]] bool take(const std::string& name);

  std::array<char32_t, 256> characters_{};  // 0: none that can be printed
  std::map<char32_t, char> bytes_;
};

// Whether the name is that of the encoding that texts have anyway.
[[nodiscard]] bool is_utf8_name(std::string_view name);

}  // namespace layout
