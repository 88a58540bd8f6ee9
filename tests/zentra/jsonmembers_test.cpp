// Lines of JSON: what is read in one go is what the parser makes of it.
#include "zentra/transfer/jsonmembers.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace zentra {
namespace {

using layout::Kind;
using Members = std::vector<std::tuple<std::string, Kind, std::string>>;

Members members_of(const std::string& line, bool& is_right) {
  JsonMembers members;
  members.begin(line);
  Members all;
  while (members.next()) all.emplace_back(members.name(), members.kind(), members.value());
  is_right = members.why().empty();
  return all;
}

// A newline behind the line makes the parser read it, however usual it is.
void expect_the_same(const std::string& line) {
  bool is_right = false;
  bool is_parsed = false;
  const Members read = members_of(line, is_right);
  EXPECT_EQ(read, members_of(line + '\n', is_parsed)) << line;
  EXPECT_EQ(is_right, is_parsed) << line;
}

TEST(JsonMembers, OfUsualLines) {
  bool is_right = false;
  const Members all = members_of(
      "{\"a\":\"text, \xC3\xA9 of more than sixteen bytes\", \"b\" : -12.50 ,\"c\":0,\"d\":null,"
      "\"e\":true,\"f\":false,\"g\":{\"hex\":\"0aff\"}}\r",
      is_right);
  EXPECT_TRUE(is_right);
  EXPECT_EQ(all, (Members{{"a", Kind::kText, "text, \xC3\xA9 of more than sixteen bytes"},
                          {"b", Kind::kNumber, "-12.50"},
                          {"c", Kind::kNumber, "0"},
                          {"d", Kind::kNull, "null"},
                          {"e", Kind::kBoolean, "true"},
                          {"f", Kind::kBoolean, "false"},
                          {"g", Kind::kHex, "0aff"}}));
}

TEST(JsonMembers, OfNumbersAsTheParserHasThem) {
  for (const char* const number : {"0",
                                   "-0",
                                   "-0.0",
                                   "00",
                                   "01",
                                   "-01",
                                   "1.",
                                   ".5",
                                   "-",
                                   "--1",
                                   "+1",
                                   "1e5",
                                   "1E-5",
                                   "1.5e400",
                                   "12345678901234567",
                                   "123456789012345678",
                                   "99999999999999999999",
                                   "0.1234567890123456789",
                                   "-12345678901234567890123",
                                   "1 2",
                                   "1x",
                                   "nul",
                                   "nulll",
                                   "tru",
                                   "truee",
                                   "Infinity"}) {
    expect_the_same(std::string("{\"a\":") + number + "}");
    expect_the_same(std::string("{\"a\":[") + number + "]}");
  }
}

TEST(JsonMembers, OfLinesWithAZeroByte) {
  const std::string line = R"({"a":1})";
  for (std::size_t at = 0; at <= line.size(); ++at) {
    bool is_right = true;
    EXPECT_TRUE(members_of(line.substr(0, at) + '\0' + line.substr(at), is_right).empty()) << at;
    EXPECT_FALSE(is_right) << at;
  }
  bool is_right = true;
  EXPECT_TRUE(members_of(line + '\0' + line, is_right).empty());
  EXPECT_FALSE(is_right);
}

TEST(JsonMembers, OfLinesWithSomethingElse) {
  const std::vector<std::string> lines{
      R"({"id":"00000001","name":"A \"quoted\" one","n":-12.5,"x":{"hex":"00ff"},"d":"2026-11-22"})",
      R"({"a":{"hex":"0a"},"b":{"hex": "0b"},"c":{"heX":"0c"},"d":true,"e":null})",
      "{\"a\":\"\xC3\xA9t\xC3\xA9 of twenty bytes and more\",\"b\":\"tab\\t\",\"c\":12345678}"};
  std::mt19937 chance(1);
  const std::string odd = "{}[]\":,\\ \t\r0.eE-+ntf\x01\x7F\xC3\xFF";
  for (int round = 0; round < 30000; ++round) {
    std::string line = lines[chance() % lines.size()];
    for (auto changes = chance() % 3; changes-- > 0;) {
      const std::size_t at = chance() % line.size();
      const char c = odd[chance() % odd.size()];
      switch (chance() % 3) {
        case 0:
          line[at] = c;
          break;
        case 1:
          line.insert(at, 1, c);
          break;
        default:
          line.erase(at, 1);
      }
    }
    expect_the_same(line);
  }
}

}  // namespace
}  // namespace zentra
