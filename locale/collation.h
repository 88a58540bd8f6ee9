// collation: the client's locale, as far as the order of character keys needs it.
//
// The client locale is named by `CLIENT_LOCALE` (such as "en_us.utf8"); without it the order is
// that of the bytes. The process's own locale is neither used nor changed.
//
// Gives   the locale's name as files carry it, and the comparison of locale keys
// Keeps   any bytes have a place in the order, so that comparing never fails
#pragma once

#include <string_view>

#include "common/bytes.h"

namespace locale {

// Loads the client locale: 0, or -1 with get_ulxerror() telling why.
int initulx();
// As initulx(), unless that has already succeeded.
int chkulxinit();
// The errno value of the last failure.
[[nodiscard]] int get_ulxerror();

// The client locale's name as it stands in files: lower case, at most 36 bytes, the same however
// `CLIENT_LOCALE` writes it. Empty before initulx().
[[nodiscard]] std::string_view file_system_name();

// Orders two fields of equal length by the client locale: negative, 0 or positive. What the locale
// holds for equal is equal. Blanks that pad a field are no part of its text. The text ends before
// the first zero byte and before the first byte that is no character of the locale's code set; what
// follows orders, by its bytes, fields whose texts are equal.
[[nodiscard]] int compare(common::ConstBytes a, common::ConstBytes b);

}  // namespace locale
