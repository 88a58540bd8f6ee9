// number: reading whole numbers from text such as an environment variable.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace common {

// The base-10 integer in `text`; none when there is anything else in it, even blanks or a plus
// sign, or the number is not in low..high.
[[nodiscard]] inline std::optional<std::int64_t> number_within(std::string_view text,
                                                               std::int64_t low,
                                                               std::int64_t high) {
  std::int64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end || value < low || value > high) return std::nullopt;
  return value;
}

}  // namespace common
