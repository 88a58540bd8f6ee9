// The names of locales, in files and for the C library.
#include "locale/name.h"

#include <gtest/gtest.h>

namespace locale {
namespace {

TEST(LocaleName, IsTheSameHoweverItIsWritten) {
  struct Case {
    const char* given;
    const char* in_files;
    const char* of_system;
  };
  const Case cases[] = {
      {"C", "c", "C"},
      {"POSIX", "c", "C"},
      {"c.UTF-8", "c.utf8", "C.UTF-8"},
      {"en_us.utf8", "en_us.utf8", "en_US.UTF-8"},
      {"EN_US.UTF-8", "en_us.utf8", "en_US.UTF-8"},
      {"de_DE.8859-1", "de_de.iso88591", "de_DE.iso88591"},
      {"ca_ES.UTF-8@valencia", "ca_es.utf8@valencia", "ca_ES.UTF-8@valencia"},
      {"de_DE@EURO", "de_de@euro", "de_DE@euro"},
      {"german", "german", "german"},
      {"ab_cd.0123456789012345678901234567", "ab_cd.iso0123456789012345678901234567", ""},
  };
  for (const Case& each : cases) {
    const std::string name = file_name(each.given);
    if (std::string_view(each.in_files).size() > kNameLimit) {
      EXPECT_EQ(name, "");
      continue;
    }
    EXPECT_EQ(name, each.in_files);
    EXPECT_EQ(system_name(name), each.of_system);
    EXPECT_EQ(file_name(system_name(name)), name);
    EXPECT_EQ(file_name(name), name);
  }
  for (const char* name : {"", ".utf8", "@euro", "../de_DE", "de_DE.utf8;LC_CTYPE=C", "de DE"}) {
    EXPECT_EQ(file_name(name), "") << name;
  }
  EXPECT_EQ(file_name(std::string(1000, 'a')), "");
}

}  // namespace
}  // namespace locale
