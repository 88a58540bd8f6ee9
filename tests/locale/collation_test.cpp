// The order of locale keys: what the locale says, and a place for all bytes.
#include "locale/collation.h"

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/locales.h"

namespace testing_support {
namespace {

constexpr std::size_t kWidth = 12;

int sign(int order) { return (order > 0) - (order < 0); }

int order(const std::string& a, const std::string& b) {
  const auto bytes = [](const std::string& text) {
    return common::ConstBytes{reinterpret_cast<const common::Byte*>(text.data()), text.size()};
  };
  return sign(locale::compare(bytes(a), bytes(b)));
}

std::string padded(std::string text) {
  text.resize(kWidth, ' ');
  return text;
}

struct Client {
  const char* language;  // null: the system's own
  const char* code_set;
  const char* name;  // as CLIENT_LOCALE
};

class Collation : public testing::TestWithParam<Client> {
 protected:
  void SetUp() override {
    const Client& client = GetParam();
    if (client.language != nullptr && !make_locale(client.language, client.code_set)) {
      GTEST_SKIP() << "no localedef, or no sources for " << client.name;
    }
    ::setenv("CLIENT_LOCALE", client.name, 1);
    ASSERT_EQ(locale::initulx(), 0) << locale::get_ulxerror();
    EXPECT_EQ(locale::file_system_name(), client.name);
    EXPECT_STREQ(::setlocale(LC_ALL, nullptr), "C");
  }
};

// Characters of several code sets, whole and torn, next to bytes that are none.
std::string random_field(std::mt19937& random) {
  static const std::vector<std::string> pieces = [] {
    std::vector<std::string> all = {std::string(1, '\0')};
    std::istringstream text(
        "a|a|A|b|z| "
        "|-|1|\t|\x7F|\xC3\xA4|\xC3\xA5|\xC3\x9F|e\xCC\x81|\xCD\xB8|\xCD\xB9|\xE2\x82\xAC|"
        "\xF0\x9F\xA6\x84|\xED\xA0\x80|\xC3|\xE2\x82|\xFF|\xC0\x80|\xE4|\xA4\xA2");
    for (std::string piece; std::getline(text, piece, '|');) all.push_back(piece);
    return all;
  }();
  std::string field;
  for (std::size_t count = random() % 5; count > 0; --count) {
    field += pieces[random() % pieces.size()];
  }
  return padded(field);
}

TEST_P(Collation, GivesAllBytesAPlace) {
  constexpr std::size_t kFields = 120;
  std::mt19937 random(7);
  std::vector<std::string> fields;
  while (fields.size() < kFields) fields.push_back(random_field(random));
  std::vector<std::vector<int>> orders(kFields, std::vector<int>(kFields));
  for (std::size_t a = 0; a < kFields; ++a) {
    for (std::size_t b = 0; b < kFields; ++b) orders[a][b] = order(fields[a], fields[b]);
  }
  int broken = 0;
  for (std::size_t a = 0; a < kFields; ++a) {
    EXPECT_EQ(orders[a][a], 0);
    for (std::size_t b = 0; b < kFields; ++b) {
      broken += orders[a][b] != -orders[b][a];
      if (orders[a][b] > 0) continue;
      for (std::size_t c = 0; c < kFields; ++c) {
        const int expected = orders[a][b] == 0 ? orders[b][c] : -1;
        broken += orders[b][c] <= 0 && orders[a][c] != expected;
      }
    }
  }
  EXPECT_EQ(broken, 0);
}

TEST_P(Collation, TakesNeitherPaddingNorABrokenEndForText) {
  EXPECT_LT(order(padded("ab"), padded("abc")), 0);
  const std::string zeros{"ab\0\0", 4};
  EXPECT_NE(order("ab  ", zeros), 0);
  EXPECT_NE(order("ab\xFF", "ab\xFE"), 0);
  EXPECT_LT(order("aa\xFF", "ab "), 0);
}

INSTANTIATE_TEST_SUITE_P(Clients, Collation,
                         testing::Values(Client{nullptr, nullptr, "c"},
                                         Client{"de_DE", "UTF-8", "de_de.utf8"},
                                         Client{"sv_SE", "UTF-8", "sv_se.utf8"},
                                         Client{"de_DE", "ISO-8859-1", "de_de.iso88591"},
                                         Client{"ja_JP", "EUC-JP", "ja_jp.eucjp"}));

TEST(Collations, RefuseALocaleThatIsNotThere) {
  for (const char* name : {"xx_YY.utf8", "../../etc", "LC_COLLATE=C;LC_CTYPE=C"}) {
    ::setenv("CLIENT_LOCALE", name, 1);
    EXPECT_EQ(locale::initulx(), -1) << name;
    EXPECT_NE(locale::get_ulxerror(), 0);
  }
  ::setenv("CLIENT_LOCALE", "", 1);
  EXPECT_EQ(locale::initulx(), 0);
  EXPECT_EQ(locale::file_system_name(), "c");
}

}  // namespace
}  // namespace testing_support
