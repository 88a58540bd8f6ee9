// textfile: a file that somebody wrote by hand, as a whole.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zentra {

// The bytes of a regular file of at most so many; none: errno tells why.
[[nodiscard]] std::optional<std::string> contents_of(const std::string& path, std::int64_t most);

}  // namespace zentra
