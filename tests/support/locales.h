// locales: locales for tests, made on the spot and seen by the tests alone.
#pragma once

#include <string>

namespace testing_support {

// Makes a locale such as "de_DE" with "UTF-8" known to this process and those it starts, under the
// name "de_DE.utf8". False when there is no localedef or it has no sources for that locale.
bool make_locale(const std::string& language, const std::string& code_set);

}  // namespace testing_support
