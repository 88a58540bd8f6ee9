// text: bytes of files as an operator may see them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "isam.h"
#include "isam/base/format.h"

namespace zentra {

// Whether the bytes are UTF-8 of characters that show as themselves: no control characters, none
// that change the direction or cannot be seen.
[[nodiscard]] bool is_printable(std::string_view bytes);
// The bytes with \xNN for each that does not belong to such a character, and for "\" itself.
[[nodiscard]] std::string shown(std::string_view bytes);
[[nodiscard]] std::string hex(std::string_view bytes);

// A number with a comma behind each thousand.
[[nodiscard]] std::string grouped(std::int64_t number);

// A key value part by part, such as "SMITH", 48. The bytes are as many as the key has.
[[nodiscard]] std::string shown_key(const keydescr& k, std::string_view value);

[[nodiscard]] inline std::string_view as_text(isam::ConstBytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace zentra
