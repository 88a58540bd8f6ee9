#include "common/printable.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace common {
namespace {

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};
// Characters that do not show as themselves.
constexpr std::array kHidden = std::to_array<Range>({{0x00, 0x1F},
                                                     {0x7F, 0x9F},
                                                     {0xAD, 0xAD},
                                                     {0x61C, 0x61C},
                                                     {0x180E, 0x180E},
                                                     {0x200B, 0x200F},
                                                     {0x2028, 0x202E},
                                                     {0x2060, 0x206F},
                                                     {0xD800, 0xF8FF},
                                                     {0xFDD0, 0xFDEF},
                                                     {0xFEFF, 0xFEFF},
                                                     {0xFFF0, 0xFFFF},
                                                     {0xE0000, UINT32_MAX}});

// The bytes of the printable character at the beginning; 0 for none.
std::size_t character(std::string_view bytes) {
  const auto first = static_cast<unsigned char>(bytes.front());
  const std::size_t size = first < 0x80   ? 1
                           : first < 0xC2 ? 0
                           : first < 0xE0 ? 2
                           : first < 0xF0 ? 3
                                          : 4;
  if (size == 0 || first > 0xF4 || bytes.size() < size) return 0;
  std::uint32_t code = size == 1 ? first : first & (0x7FU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    const auto next = static_cast<unsigned char>(bytes[i]);
    if ((next & 0xC0) != 0x80) return 0;
    code = code << 6 | (next & 0x3F);
  }
  const bool overlong = (size == 3 && code < 0x800) || (size == 4 && code < 0x10000);
  const bool hidden = std::ranges::any_of(
      kHidden, [code](const Range& range) { return code >= range.first && code <= range.last; });
  return overlong || hidden ? 0 : size;
}

void append_hex(std::string& text, char byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  text += kDigits[value >> 4];
  text += kDigits[value & 15];
}

}  // namespace

bool is_printable(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t size = character(bytes);
    if (size == 0) return false;
    bytes.remove_prefix(size);
  }
  return true;
}

std::string shown(std::string_view bytes) {
  std::string text;
  while (!bytes.empty()) {
    const std::size_t size = bytes.front() == '\\' ? 0 : character(bytes);
    if (size == 0) append_hex(text += "\\x", bytes.front());
    text += bytes.substr(0, size);
    bytes.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return text;
}

std::string hex(std::string_view bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char byte : bytes) append_hex(text, byte);
  return text;
}

}  // namespace common
