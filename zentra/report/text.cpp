#include "zentra/report/text.h"

#include <fmt/format.h>

#include <cstdint>

#include "isam/keys/keys.h"

namespace zentra {
namespace {

std::string shown_part(const keypart& part, std::string_view value) {
  const auto* at = reinterpret_cast<const isam::Byte*>(value.data());
  switch (part.type & 15) {
    case KT_INT:
      return fmt::format("{}", common::ldshort(at));
    case KT_LONG:
      return fmt::format("{}", common::ldlong(at));
    case KT_DOUBLE:
      return fmt::format("{}", common::lddbl(at));
    case KT_FLOAT:
      return fmt::format("{}", common::ldfloat(at));
    default: {
      const std::size_t end = value.find_last_not_of(' ');
      return fmt::format("\"{}\"", shown(value.substr(0, end == value.npos ? 0 : end + 1)));
    }
  }
}

}  // namespace

std::string grouped(std::int64_t number) {
  std::string text = std::to_string(number);
  const std::ptrdiff_t first = number < 0 ? 1 : 0;
  for (std::ptrdiff_t at = std::ssize(text) - 3; at > first; at -= 3) {
    text.insert(static_cast<std::size_t>(at), 1, ',');
  }
  return text;
}

std::string shown_key(const keydescr& k, std::string_view value) {
  std::string text;
  for (int i = 0; i < k.nparts; ++i) {
    const auto length = static_cast<std::size_t>(k.part[i].length);
    if (value.size() < length) break;
    text += (i == 0 ? "" : ", ") + shown_part(k.part[i], value.substr(0, length));
    value.remove_prefix(length);
  }
  return text;
}

std::string key_in_words(const keydescr& k) {
  if (k.nparts == 0) return "the order of record numbers";
  std::string text = (k.flags & KF_DUPS) != 0 ? "duplicates" : "unique";
  for (int i = 0; i < k.nparts; ++i) {
    const keypart& part = k.part[i];
    text += fmt::format(", bytes {} to {} {} {}", part.start, part.start + part.length - 1,
                        isam::type_name(part.type),
                        (part.type & KT_DESC) != 0 ? "descending" : "ascending");
  }
  return text + ((k.flags & KF_COMPRESS) != 0 ? ", compressed" : "");
}

}  // namespace zentra
