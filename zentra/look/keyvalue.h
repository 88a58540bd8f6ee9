// keyvalue: a key value from what an operator types.
#pragma once

#include <optional>
#include <string>

#include "isam.h"

namespace zentra {

// The bytes of a key, or its beginning. `text`: "0x" and hexadecimal digits; or the values of the
// parts from the first on, with a comma behind each but the last. Empty when it is neither.
[[nodiscard]] std::optional<std::string> key_from_text(const keydescr& k, const std::string& text);

}  // namespace zentra
