// text: bytes of files as an operator may see them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/printable.h"
#include "isam.h"
#include "isam/base/format.h"

namespace zentra {

using common::hex;
using common::is_printable;
using common::shown;

// A number with a comma behind each thousand.
[[nodiscard]] std::string grouped(std::int64_t number);

// A key value part by part, such as "SMITH", 48. The bytes are as many as the key has.
[[nodiscard]] std::string shown_key(const keydescr& k, std::string_view value);

// What an index is, such as "unique, bytes 0 to 7 char ascending".
[[nodiscard]] std::string key_in_words(const keydescr& k);

[[nodiscard]] inline std::string_view as_text(isam::ConstBytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace zentra
