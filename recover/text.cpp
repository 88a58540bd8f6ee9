#include "recover/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "common/hexdump.h"
#include "isam/keys/keys.h"

namespace recover {
namespace {

std::string hex(unsigned value, int digits) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%0*X", digits, value);
  return text.data();
}

std::string part_text(const keypart& part) {
  std::string text = " (" + std::to_string(part.start) + "," + std::to_string(part.length) + "," +
                     isam::type_name(part.type);
  if ((part.type & KT_DESC) != 0) text += ",descending";
  return text + ")";
}

}  // namespace

std::string time_text(std::uint32_t seconds) {
  const std::time_t moment = seconds;
  std::tm parts{};
  ::gmtime_r(&moment, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

std::string quoted(std::string_view bytes) {
  std::string text = "\"";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') text += '\\';
    text += common::is_printable(byte) ? std::string(1, c) : "\\x" + hex(byte, 2);
  }
  return text + '"';
}

std::string key_text(const keydescr& key) {
  std::string text = "key";
  for (int i = 0; i < std::clamp<int>(key.nparts, 0, MAXPARTS); ++i) text += part_text(key.part[i]);
  if (key.nparts <= 0) text += " of record numbers";
  if ((key.flags & KF_DUPS) != 0) text += " duplicates";
  if ((key.flags & KF_COMPRESS) != 0) {
    text += " compressed";
    if ((key.flags & KF_DCOMPRESS) != 0) text += "-duplicates";
    if ((key.flags & KF_LCOMPRESS) != 0) text += "-leading";
    if ((key.flags & KF_TCOMPRESS) != 0) text += "-trailing";
  }
  return text;
}

std::string code_text(std::int32_t code) {
  return code == 0 ? "0" : std::to_string(code) + " " + quoted(iserrtext(code));
}

std::string dump_text(common::ConstBytes bytes) {
  const auto place = [](std::size_t at) {
    return "    " + hex(static_cast<unsigned>(at), 4) + "  ";
  };
  return common::hex_dump(bytes, {place, "", ""});
}

}  // namespace recover
