#include "zentra/look/keyvalue.h"

#include <array>
#include <charconv>
#include <cstdint>

#include "common/bytes.h"
#include "isam/base/format.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

template <typename Number>
bool read_number(const std::string& text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size();
}

std::optional<std::string> from_hex(const std::string& digits) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    unsigned byte = 0;
    const char* const at = digits.data() + i;
    if (std::from_chars(at, at + 2, byte, 16).ptr != at + 2) return {};
    bytes += static_cast<char>(byte);
  }
  if (digits.size() % 2 != 0) return {};
  return bytes;
}

std::optional<std::string> part_from_text(const keypart& part, const std::string& text) {
  std::array<isam::Byte, 8> bytes{};
  std::int32_t whole = 0;
  double real = 0;
  switch (part.type & 15) {
    case KT_INT:
      if (!read_number(text, whole) || whole < INT16_MIN || whole > INT16_MAX) return {};
      common::stword(static_cast<std::uint32_t>(whole), bytes.data());
      break;
    case KT_LONG:
      if (!read_number(text, whole)) return {};
      common::stlong(whole, bytes.data());
      break;
    case KT_DOUBLE:
      if (!read_number(text, real)) return {};
      stdbl(reinterpret_cast<char*>(bytes.data()), real);
      break;
    case KT_FLOAT:
      if (!read_number(text, real)) return {};
      stfloat(reinterpret_cast<char*>(bytes.data()), static_cast<float>(real));
      break;
    default: {
      const auto length = static_cast<std::size_t>(part.length);
      if (text.size() > length) return {};
      return text + std::string(length - text.size(), ' ');
    }
  }
  return std::string(as_text(bytes).substr(0, static_cast<std::size_t>(part.length)));
}

}  // namespace

std::optional<std::string> key_from_text(const keydescr& k, const std::string& text) {
  if (text.starts_with("0x")) return from_hex(text.substr(2));
  std::string key;
  std::string rest = text;
  for (int i = 0; i < k.nparts; ++i) {
    const auto comma = i + 1 < k.nparts ? rest.find(',') : rest.npos;
    const auto part = part_from_text(k.part[i], rest.substr(0, comma));
    if (!part) return {};
    key += *part;
    if (comma == rest.npos) return key;
    rest.erase(0, comma + 1);
  }
  return {};
}

}  // namespace zentra
