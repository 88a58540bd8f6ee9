// collation: the client's locale, as far as the order of character keys needs it.
//
// The client locale is named by `CLIENT_LOCALE` (such as "en_us.utf8"); without it the order is
// that of the bytes. The process's own locale is neither used nor changed.
//
// "ulx" in a name means: of the client locale.
//
// Gives   the locale's name as files carry it, and the comparison of locale keys
// Keeps   whatever its bytes, each field has one place in the order: comparing never fails
#pragma once

#include <string_view>

#include "common/bytes.h"

namespace locale {

// Loads the client locale that `CLIENT_LOCALE` names now: 0, or -1 with get_ulxerror() telling why.
// After a failure the one loaded before, if any, serves on.
int initulx();
// Loads the client locale unless one is loaded: 0, or -1 as above.
int chkulxinit();
// The errno value of the last of these that failed: EINVAL for a name of no legal form, mostly
// ENOENT for a locale that the system does not have.
[[nodiscard]] int get_ulxerror();

// The client locale's name as it stands in files: lower case, at most 36 bytes, the same however
// `CLIENT_LOCALE` writes it. Empty before a locale is loaded.
[[nodiscard]] std::string_view file_system_name();

// Orders two fields of equal length by the client locale: negative, 0 or positive; by their bytes
// when the order is that of the bytes, or no locale is loaded. Otherwise:
//
// 1. Blanks at the end of a field do not count.
// 2. A field begins with its text. The text ends before the first byte that is zero or does not
//    belong to a character of the locale's code set.
// 3. The locale orders the two texts. When it holds them for equal, the bytes behind the texts
//    decide. When these are equal too, so are the fields.
[[nodiscard]] int compare(common::ConstBytes a, common::ConstBytes b);

}  // namespace locale
