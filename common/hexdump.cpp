#include "common/hexdump.h"

#include <algorithm>

namespace common {
namespace {

constexpr std::size_t kPerLine = 16;

void append_line(std::string& text, ConstBytes line, const DumpStyle& style) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  for (std::size_t i = 0; i < kPerLine; ++i) {
    if (i == kPerLine / 2) text += style.between_halves;
    const bool is_there = i < line.size();
    text += is_there ? kDigits[line[i] >> 4] : ' ';
    text += is_there ? kDigits[line[i] & 0xF] : ' ';
    text += ' ';
  }
  text += ' ';
  text += style.edge;
  for (const Byte byte : line) text += is_printable(byte) ? static_cast<char>(byte) : '.';
  text += style.edge;
  text += '\n';
}

}  // namespace

std::string hex_dump(ConstBytes bytes, const DumpStyle& style) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += kPerLine) {
    text += style.place(at);
    append_line(text, bytes.subspan(at, std::min(kPerLine, bytes.size() - at)), style);
  }
  return text;
}

}  // namespace common
