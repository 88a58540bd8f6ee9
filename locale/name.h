// name: how files and the C library write the name of a locale.
//
// "de_DE.UTF-8@euro" is language, territory, code set and modifier; all but the language may be
// missing.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace locale {

constexpr std::size_t kNameLimit = 36;        // bytes of a name in a file
constexpr std::string_view kByteOrder = "c";  // in files, the locale in which bytes are ordered

// The name as files carry it: "de_de.utf8@euro"; "c" for "C" and "POSIX", the order of the bytes.
// Empty when it is too long or has characters that names of locales do not have.
[[nodiscard]] std::string file_name(std::string_view name);

// The name as the C library writes it, of one that file_name() gave: "de_DE.UTF-8@euro".
[[nodiscard]] std::string system_name(std::string_view name);

}  // namespace locale
