#include "layout/layout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "isam.h"
#include "layout/draft.h"

namespace layout {
namespace {

std::string problems_of(const std::vector<Problem>& problems) {
  std::string text;
  for (const Problem& problem : problems) text += shown(problem, "F") + '\n';
  return text;
}

// Everything of a field but where it stands.
std::string facts(const Field& field) {
  return field.name + '|' + name_of(field.type) + '|' + std::to_string(field.offset) + '|' +
         std::to_string(field.length) + '|' + (field.is_tail ? "tail " : "") +
         (field.may_be_null ? "null " : "") + (field.keeps_blanks ? "blanks " : "") +
         std::to_string(static_cast<int>(field.meaning)) + '|' + field.form + '|' +
         std::to_string(field.decimals) + '|' + field.yes + '|' + field.no;
}

TEST(Layout, IsReadAndWrittenAlike) {
  const Reading reading = read(
      "# customers\n"
      "id      char    0     8    # the number\r\n"
      "\n"
      "name    locale  next  20   blanks null\n"
      "born    char    60    10   date DD.MM.YYYY\n"
      "since   long    next       date since 1899-12-31 null\n"
      "due     long    next  4    date YYYYMMDD\n"
      "amount  long    next       decimal 2\n"
      "active  char    90    5    boolean \"y #\"\"\" no\n"
      "paid    int     28         boolean -1 0\n"
      "rate    double  next       null\n"
      "share   float   next\n"
      "rest    bytes   next  1\n"
      "notes   char    tail       blanks\n");
  ASSERT_EQ(problems_of(reading.problems), "");
  ASSERT_EQ(reading.fields.size(), 12U);
  EXPECT_EQ(facts(reading.fields[1]), "name|locale|8|20|null blanks 0||0||");
  EXPECT_EQ(facts(reading.fields[3]), "since|long|70|4|null 2|1899-12-31|0||");
  EXPECT_EQ(facts(reading.fields[6]), "active|char|90|5|4||0|y #\"|no");
  EXPECT_EQ(facts(reading.fields[8]), "rate|double|30|8|null 0||0||");
  EXPECT_EQ(facts(reading.fields[11]), "notes|char|0|0|tail blanks 0||0||");
}

TEST(Layout, AnEncodingIsOfTheTextsBehindIt) {
  const Reading reading = read(
      "a char 0 8\nencoding latin1\nb char next 8\nc long next\nd char next 8 encoding utf-8\n"
      "e char next 8 date YYYYMMDD\nencoding char next 8 encoding CP850\ng char tail\n");
  ASSERT_EQ(problems_of(reading.problems), "");
  std::string all;
  for (const Field& field : reading.fields) all += field.name + ':' + field.encoding + ' ';
  EXPECT_EQ(all, "a: b:latin1 c: d: e: encoding:CP850 g:latin1 ");
  const Reading again = read(text_of(reading.fields));
  EXPECT_EQ(text_of(again.fields), text_of(reading.fields));
}

struct Case {
  const char* text;
  const char* problem;
};

TEST(Layout, WhatIsWrongIsToldByLine) {
  constexpr Case kCases[] = {
      {"", "F: there is no field"},
      {"a char 0 8\n\nb char 4 8", "F:3: shares bytes with the field of line 1"},
      {"b char 4 8\na char 0 100\nc int 90", "F:2: shares bytes with the field of line 1"},
      {"a char 0 8\nA char next 8", "F:2: \"A\" is the name of the field of line 1"},
      {"1 char 0 8", "F:1: \"1\" is no name"},
      {"\xff\x1b char 0 8", "F:1: \"??\" is no name"},
      {"a", "F:1: the type is missing"},
      {"a text 0 8", "F:1: \"text\" is no type"},
      {"a char", "F:1: the offset is missing"},
      {"a char -1 8", "F:1: \"-1\" is no offset"},
      {"a char 99999999999 8", "F:1: \"99999999999\" is no offset"},
      {"a char 0", "F:1: the length is missing"},
      {"a char 0 0", "F:1: the length is missing"},
      {"a char 32000 1000", "F:1: no record is so long"},
      {"a long 0 8", "F:1: long has a length of 4"},
      {"a int tail", "F:1: a number cannot be the tail"},
      {"a char tail\nb char 0 8", "F:2: nothing comes behind the tail"},
      {"a char tail\nb char next 8", "F:2: nothing comes behind the tail"},
      {"a char 0 8 \"", "F:1: a quote is missing"},
      {"a char 0 8 trim", "F:1: \"trim\" is no option"},
      {"a char 0 8 null null", "F:1: \"null\" stands here twice"},
      {"a int 0 blanks", "F:1: only texts have trailing blanks"},
      {"a char 0 7 date YYYYMMDD", "F:1: a date of the form \"YYYYMMDD\" is longer"},
      {"a char 0 8 date YYYYMM", "F:1: \"YYYYMM\" is no form of a date"},
      {"a long 0 date YYYY-MM-DD", "F:1: a number has no room"},
      {"a long 0 date since 1900-02-29", "F:1: \"1900-02-29\" is no day"},
      {"a char 0 8 date since 1900-02-28", "F:1: only int and long count days"},
      {"a double 0 date YYYYMMDD", "F:1: a date is kept in"},
      {"a long 0 decimal 0", "F:1: \"0\" is no number of decimals"},
      {"a float 0 decimal 2", "F:1: decimals are kept in"},
      {"a long 0 decimal 2 date YYYYMMDD", "F:1: a field is one of"},
      {"a char 0 1 boolean Y", "F:1: boolean takes two words"},
      {"a char 0 1 boolean Y Y", "F:1: true and false are kept alike"},
      {"a char 0 1 boolean Y no", "F:1: \"no\" is no value"},
      {"a int 0 boolean 1 40000", "F:1: \"40000\" is no value"},
      {"a char tail boolean Y N", "F:1: \"Y\" is no value"},
      {"a char 0 8 encoding ../latin1", "F:1: \"../latin1\" is no encoding of one byte"},
      {"encoding utf-16\na char 0 8", "F:1: \"utf-16\" is no encoding of one byte"},
      {"a char 0 8 encoding shift_jis", "F:1: \"shift_jis\" is no encoding of one byte"},
      {"a char 0 8 encoding", "F:1: \"\" is no encoding"},
      {"a bytes 0 8 encoding latin1", "F:1: only a text that is nothing else"},
      {"a char 0 8 encoding latin1 date YYYYMMDD", "F:1: only a text that is nothing else"},
  };
  for (const auto& [text, problem] : kCases) {
    const Reading reading = read(text);
    EXPECT_EQ(problems_of(reading.problems).substr(0, std::strlen(problem)), problem) << text;
  }
  EXPECT_EQ(read(std::string(std::size_t{5} << 20, '#')).problems.size(), 1U);
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "?\n";
  EXPECT_LE(read(many).problems.size(), 20U);
  const Reading reading = read("a char 0 8\nb char next 8\nc char tail");
  EXPECT_EQ(problems_of(misfits(reading.fields, 15, false)),
            "F:2: ends at byte 16 of a record of 15\nF:3: the records have no tail\n");
}

// Whatever fields there are, they come back from their text.
TEST(Layout, AnyFieldsComeBack) {
  std::minstd_rand random(1);
  const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
  for (int round = 0; round < 300; ++round) {
    std::string text;
    for (int i = 0; i < 8; ++i) {
      constexpr const char* kLines[] = {"char %d date \"DD MM YY\"", "locale %d blanks null",
                                        "bytes %d", "char %d boolean \"a \"\"b\" \"\"",
                                        "char %d decimal 3"};
      std::array<char, 80> line{};
      std::snprintf(line.data(), line.size(), kLines[below(5)], 8 + below(90));
      const std::string words = line.data();
      const auto length = words.find(' ');
      text += "f" + std::to_string(i) + ' ' + words.substr(0, length) +
              (below(3) == 0 ? ' ' + std::to_string(200 * i) : " next") + words.substr(length) +
              '\n';
    }
    const Reading reading = read(text);
    if (!reading.problems.empty()) continue;
    const Reading again = read(text_of(reading.fields));
    ASSERT_EQ(problems_of(again.problems), "") << text;
    ASSERT_TRUE(std::ranges::equal(reading.fields, again.fields, {}, facts, facts)) << text;
  }
}

TEST(Draft, GuessesWhatPeopleKeep) {
  Draft draft(64, true);
  draft.add_key(0, 8, Type::kChar, "index 1");
  draft.add_key(0, 28, Type::kChar, "index 2");  // of which a part is known better
  draft.add_key(60, 8, Type::kDouble, "outside");
  std::minstd_rand random(1);
  for (int i = 0; i < 200; ++i) {
    std::array<char, 65> record{};
    const auto number = static_cast<unsigned>(random() % 100000);
    std::snprintf(record.data(), record.size(), "%08d%-20.*s%-4.4s%06u", i,
                  4 + static_cast<int>(number % 12), "Abcdefghijklmnopqrst", "city", number);
    stlong(static_cast<std::int32_t>(number) - 500, &record[38]);
    stdbl(&record[42], number * 0.01);
    stfloat(&record[50], static_cast<float>(number) / 8);
    stint(static_cast<int>(number % 200), &record[54]);
    std::memset(&record[56], 0, 4);
    for (std::size_t at = 60; at < 64; ++at) record[at] = static_cast<char>(random() >> 8);
    const auto bytes = Bytes(reinterpret_cast<unsigned char*>(record.data()), 64);
    draft.add_record(bytes, bytes.first(30));
  }
  std::string found;
  for (const Field& field : draft.fields()) {
    found += field.name + ' ' + std::to_string(field.length) + ' ' + field.comment + '\n';
  }
  EXPECT_EQ(found,
            "char_0 8 index 1\nchar_8 20 guess: text\nchar_28 4 guess: text\n"
            "char_32 6 guess: digits\nlong_38 4 guess: numbers\ndouble_42 8 guess: numbers\n"
            "float_50 4 guess: numbers\nint_54 2 guess: numbers\nbytes_56 4 guess: zero bytes\n"
            "bytes_60 4 guess: any bytes\ntail 0 guess: text\n");
}

// Whatever the keys and the bytes, a draft covers each byte once and can be read.
TEST(Draft, TellsWhichTextsAreNotUtf8) {
  Draft draft(12, true);
  const std::string record = "M\xFCller  0012";
  const std::string tail = "a\r\nb\xE9";
  const auto bytes = [](const std::string& text) {
    return Bytes(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  };
  for (int i = 0; i < 9; ++i) draft.add_record(bytes(record), bytes(tail));
  std::string comments;
  for (const Field& field : draft.fields()) comments += field.comment + '\n';
  EXPECT_EQ(comments,
            "guess: text; not UTF-8: \"encoding\" tells what it is\nguess: digits\n"
            "guess: text; not UTF-8: \"encoding\" tells what it is\n");
}

TEST(Draft, CoversEachByteOnce) {
  std::minstd_rand random(2);
  const auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  for (int round = 0; round < 300; ++round) {
    const int length = 1 + below(120);
    Draft draft(length, false);
    for (int keys = below(6); keys > 0; --keys) {
      draft.add_key(below(130) - 5, below(20), static_cast<Type>(below(7)), "index");
    }
    std::vector<unsigned char> record(static_cast<std::size_t>(length));
    for (int records = below(50); records > 0; --records) {
      for (unsigned char& byte : record) {
        byte = static_cast<unsigned char>(below(3) == 0 ? below(256) : " 0a\0"[below(4)]);
      }
      draft.add_record(record, {});
    }
    const Reading reading = read(text_of(draft.fields()));
    ASSERT_EQ(problems_of(reading.problems) + problems_of(misfits(reading.fields, length, false)),
              "");
    int covered = 0;
    for (const Field& field : reading.fields) covered += field.length;
    ASSERT_EQ(covered, length);
  }
}

}  // namespace
}  // namespace layout
