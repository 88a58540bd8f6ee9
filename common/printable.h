// printable: bytes that may be anything, as an operator may see them.
#pragma once

#include <string>
#include <string_view>

namespace common {

// Whether the bytes are UTF-8 of characters that show as themselves: no control characters, none
// that change the direction or cannot be seen.
[[nodiscard]] bool is_printable(std::string_view bytes);
// The bytes with \xNN for each that does not belong to such a character, and for "\" itself.
[[nodiscard]] std::string shown(std::string_view bytes);
// Two digits for each byte.
[[nodiscard]] std::string hex(std::string_view bytes);

}  // namespace common
