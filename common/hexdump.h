// hexdump: bytes as lines of printable ASCII, each with its newline.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "common/bytes.h"

namespace common {

[[nodiscard]] constexpr bool is_printable(Byte byte) { return byte >= ' ' && byte <= '~'; }

// How the lines of a dump look.
struct DumpStyle {
  std::string (*place)(std::size_t at);  // the text for the offset of a line's first byte
  std::string_view between_halves;       // behind the hex of the eighth byte
  std::string_view edge;                 // before and behind the characters
};

// Lines of 16 bytes each: their place, the bytes in hex, then as characters, with a dot for each
// that is not printable. Where the last line has fewer, blanks stand for their hex.
[[nodiscard]] std::string hex_dump(ConstBytes bytes, const DumpStyle& style);

}  // namespace common
