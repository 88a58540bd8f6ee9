#include "layout/value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "layout/csv.h"

namespace layout {
namespace {

using std::string_literals::operator""s;
using std::string_view_literals::operator""sv;

Field field_of(const std::string& line) {
  Reading reading = read("f " + line);
  EXPECT_TRUE(reading.problems.empty()) << line << ": " << reading.problems.front().text;
  return reading.fields.front();
}

Bytes as_bytes(const std::string& text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

using PutText = char* (*)(const Field&, Bytes, char*);

std::string text_by(PutText put, const Field& field, const std::string& bytes) {
  std::vector<char> room(text_room(bytes.size()) + 1, '#');
  char* const end = put(field, as_bytes(bytes), room.data());
  EXPECT_EQ(room.back(), '#');
  return {room.data(), end};
}

// What a cell leaves in a field full of other bytes.
std::string stored(const Field& field, const std::string& cell, std::string& wrong) {
  std::string bytes(field.is_tail ? 40 : static_cast<std::size_t>(field.length), '!');
  const Stored done =
      store_csv(field, cell, {reinterpret_cast<unsigned char*>(bytes.data()), bytes.size()});
  wrong = done.wrong;
  bytes.resize(done.length);
  return bytes;
}

// A cell as the reader gives it back.
std::string unquoted(const std::string& cell) {
  std::string text = "x," + cell + "\r\n";
  CsvReader reader([&](std::span<char> to) {
    const std::size_t count = std::min<std::size_t>(to.size(), text.size());
    std::copy_n(text.begin(), count, to.begin());
    text.erase(0, count);
    return static_cast<std::ptrdiff_t>(count);
  });
  EXPECT_EQ(reader.next(), CsvReader::Step::kRow) << cell << reader.wrong();
  return std::string(reader.cells().at(1));
}

void comes_back(const Field& field, const std::string& bytes) {
  const std::string cell = text_by(put_csv, field, bytes);
  std::string wrong;
  ASSERT_EQ(stored(field, unquoted(cell), wrong), bytes) << cell << ' ' << wrong;
  std::vector<char> room(text_room(bytes.size()));
  const Put plain = put_plain(field, as_bytes(bytes), room.data());
  std::string again(std::max<std::size_t>(bytes.size(), 1), '!');
  const Stored done = store(field, plain.kind, {room.data(), plain.end},
                            {reinterpret_cast<unsigned char*>(again.data()), bytes.size()});
  ASSERT_EQ(done.wrong, "") << cell;
  ASSERT_EQ(again.substr(0, done.length), bytes) << cell;
}

struct Shown {
  const char* line;
  std::string bytes;
  const char* csv;
  const char* json;
};

TEST(Value, StandsAsPeopleReadItAndComesBack) {
  const double tenth = 0.1;
  std::string real(sizeof tenth, '\0');
  std::memcpy(real.data(), &tenth, sizeof tenth);
  const float share = -2.5e20F;
  std::string single(sizeof share, '\0');
  std::memcpy(single.data(), &share, sizeof share);
  const std::string less_than_no_real = std::string(7, '\0') + '\x80';
  const Shown kTable[] = {
      {"char 0 8", "SMITH   ", "SMITH", R"("SMITH")"},
      {"char 0 8 blanks", "SMITH   ", "SMITH   ", R"("SMITH   ")"},
      {"char 0 8", "  a,b\"c ", R"("  a,b""c")", R"("  a,b\"c")"},
      {"char 0 4", "a\nb\\", "\"a\nb\\\"", R"("a\nb\\")"},
      {"char 0 4", "a\r\nb", "\"a\r\nb\"", R"("a\r\nb")"},
      {"char 0 4", "a\tb ", "a\tb", R"("a\tb")"},
      {"char 0 4", "a\rb ", "hex:610d6220", R"({"hex":"610d6220"})"},
      {"char 0 4", "    ", "", R"("")"},
      {"char 0 4 null", "    ", "", "null"},
      {"locale 0 4", "\xC3\xA9te", "\xC3\xA9te", "\"\xC3\xA9te\""},
      {"char 0 4", "\xE9te ", "hex:e9746520", R"({"hex":"e9746520"})"},
      {"char 0 4", "\xC2\x9Btu", "hex:c29b7475", R"({"hex":"c29b7475"})"},
      {"char 0 4", "\xED\xA0\x80 ", "hex:eda08020", R"({"hex":"eda08020"})"},
      {"char 0 4 encoding latin1", "\xE9\xDF, ", "\"\xC3\xA9\xC3\x9F,\"", "\"\xC3\xA9\xC3\x9F,\""},
      {"char 0 4 encoding latin1", "\"\xE9\xA0 ", "\"\"\"\xC3\xA9\xC2\xA0\"",
       "\"\\\"\xC3\xA9\xC2\xA0\""},
      {"char 0 4 encoding latin1", "\x85t  ", "hex:85742020", R"({"hex":"85742020"})"},
      {"char 0 4 encoding CP850", "\x82t  ", "\xC3\xA9t", "\"\xC3\xA9t\""},
      {"char tail encoding windows-1252", "\x80 5", "\xE2\x82\xAC 5", "\"\xE2\x82\xAC 5\""},
      {"char 0 2 encoding windows-1252", "\x81 ", "hex:8120", R"({"hex":"8120"})"},
      {"char 0 2 encoding utf-8", "\xC3\xA9", "\xC3\xA9", "\"\xC3\xA9\""},
      {"char 0 20", "1234567890123456, 89", "\"1234567890123456, 89\"",
       R"("1234567890123456, 89")"},
      {"char 0 18", "1234567890123456\x01 ", "hex:313233343536373839303132333435360120",
       R"({"hex":"313233343536373839303132333435360120"})"},
      {"char 0 4", "abc\0"s, "hex:61626300", R"({"hex":"61626300"})"},
      {"char 0 6", "hex:0a", "hex:6865783a3061", R"("hex:0a")"},
      {"int 0", "\xFF\xFE", "-2", "-2"},
      {"int 0", "\x80\0"s, "-32768", "-32768"},
      {"int 0 null", "\x80\0"s, "", "null"},
      {"long 0", "\x7F\xFF\xFF\xFF", "2147483647", "2147483647"},
      {"long 0 null", "\x80\0\0\0"s, "", "null"},
      {"double 0", real, "0.1", "0.1"},
      {"double 0", less_than_no_real, "-0.0", "-0.0"},
      {"double 0 null", std::string(8, '\xFF'), "", "null"},
      {"double 0", std::string(8, '\xFF'), "hex:ffffffffffffffff", R"({"hex":"ffffffffffffffff"})"},
      {"float 0", single, "-2.5e+20", "-2.5e+20"},
      {"bytes 0 3", "\0\x0F\xA0"s, "000fa0", R"("000fa0")"},
      {"bytes 0 2 null", "\xFF\xFF", "", "null"},
      {"char 0 10 date DD.MM.YYYY", "22.11.2026", "2026-11-22", R"("2026-11-22")"},
      {"char 0 10 date YYYYMMDD", "20260229  ", "hex:32303236303232392020",
       R"({"hex":"32303236303232392020"})"},
      {"char 0 8 date YYYYMMDD null", "        ", "", "null"},
      {"char 0 6 date YYMMDD", "690101", "1969-01-01", R"("1969-01-01")"},
      {"char 0 6 date YYMMDD", "681231", "2068-12-31", R"("2068-12-31")"},
      {"long 0 date YYYYMMDD", "\x01\x35\x29\x02", "2026-11-22", R"("2026-11-22")"},
      {"long 0 date YYYYMMDD", "\0\0\0\0"s, "hex:00000000", R"({"hex":"00000000"})"},
      {"long 0 date DDMMYY", "\0\x01\xFD\xCA"s, "2006-05-13", R"("2006-05-13")"},
      {"int 0 date since 1899-12-31", "\0\x01"s, "1900-01-01", R"("1900-01-01")"},
      {"long 0 date since 1899-12-31", "\x7F\xFF\xFF\xFF", "hex:7fffffff", R"({"hex":"7fffffff"})"},
      {"long 0 decimal 2", "\xFF\xFF\xFF\xFF", "-0.01", "-0.01"},
      {"int 0 decimal 3", "\x30\x39", "12.345", "12.345"},
      {"char 0 6 decimal 2", "-01250", "-12.50", "-12.50"},
      {"char 0 2 decimal 4", "12", "0.0012", "0.0012"},
      {"char 0 17 decimal 2", "00001234567890123", "12345678901.23", "12345678901.23"},
      {"char 0 17 decimal 2", "00123456789012345", "1234567890123.45", "1234567890123.45"},
      {"char 0 17 decimal 2", "12345678901234567", "123456789012345.67", R"("123456789012345.67")"},
      {"char 0 4 decimal 2", "12  ", "hex:31322020", R"({"hex":"31322020"})"},
      {"char 0 4 decimal 2", "-000", "hex:2d303030", R"({"hex":"2d303030"})"},
      {"char 0 3 boolean Y N", "Y  ", "true", "true"},
      {"char 0 3 boolean Y N", "N  ", "false", "false"},
      {"char 0 3 boolean Y N", "y  ", "hex:792020", R"({"hex":"792020"})"},
      {"int 0 boolean -1 0", "\xFF\xFF", "true", "true"},
      {"char tail", "a  ", "a  ", R"("a  ")"},
      {"char tail", "", "", R"("")"},
      {"bytes tail null", "", "", "null"},
  };
  for (const auto& [line, bytes, csv, json] : kTable) {
    SCOPED_TRACE(line);
    const Field field = field_of(line);
    EXPECT_EQ(text_by(put_csv, field, bytes), csv);
    EXPECT_EQ(text_by(put_json, field, bytes), json);
    comes_back(field, bytes);
  }
}

// Of any bytes, those that mean something among them.
TEST(Value, WhateverBytesThereAreComeBack) {
  constexpr const char* kLines[] = {
      "char 0 8",
      "char 0 8 null blanks",
      "locale 0 9 null",
      "bytes 0 8 null",
      "int 0",
      "int 0 null decimal 2",
      "long 0 null",
      "long 0 date YYYYMMDD null",
      "long 0 date YYMMDD",
      "long 0 date since 2000-02-29",
      "int 0 date since 1899-12-31 null",
      "long 0 decimal 9",
      "float 0 null",
      "double 0",
      "char 0 10 date YYYY-MM-DD null",
      "char 0 8 date MMDDYY",
      "char 0 3 decimal 5",
      "locale 0 8 decimal 2 null",
      "char 0 2 boolean Y \"\"",
      "long 0 boolean 1 -1",
      "char tail null",
      "char 0 8 encoding CP437",
      "char 0 40 encoding windows-1258 null",
      "char tail blanks encoding koi8-r",
      "bytes tail",
  };
  std::minstd_rand random(1);
  const auto below = [&](std::size_t n) { return static_cast<std::size_t>(random()) % n; };
  constexpr std::string_view kLikely = "00112233999-. Yhex:\",\r\n\0\xFF\x80\x7F\xC3\xA9"sv;
  for (const char* line : kLines) {
    SCOPED_TRACE(line);
    const Field field = field_of(line);
    for (int round = 0; round < 3000; ++round) {
      std::string bytes(field.is_tail ? below(20) : static_cast<std::size_t>(field.length), ' ');
      const std::size_t digits = below(4);
      for (char& byte : bytes) {
        byte = digits == 0   ? static_cast<char>(below(256))
               : digits == 1 ? static_cast<char>('0' + below(10))
                             : kLikely[below(digits == 2 ? 14 : kLikely.size())];
      }
      if (below(4) == 0) std::ranges::fill(bytes, bytes.empty() ? ' ' : bytes.front());
      comes_back(field, bytes);
      if (HasFatalFailure()) return;
    }
  }
}

// As few digits as tell a number from all others, by whatever way they are found.
TEST(Value, RealNumbersHaveTheirShortestText) {
  const Field field = field_of("double 0");
  std::minstd_rand random(3);
  for (int round = 0; round < 200000; ++round) {
    const auto digits = static_cast<double>(random() % (round % 2 == 0 ? 100000U : 2000000000U));
    const double scale = std::pow(10, static_cast<int>(random() % 13) - 4);
    const double number = (random() % 2 == 0 ? digits / scale : -digits * scale);
    std::string bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    std::array<char, 32> shortest{};
    char* const end = std::to_chars(shortest.data(), shortest.data() + shortest.size(), number).ptr;
    const std::string text =
        number == 0 && std::signbit(number) ? "-0.0" : std::string(shortest.data(), end);
    ASSERT_EQ(text_by(put_csv, field, bytes), text);
  }
}

struct Refused {
  const char* line;
  const char* cell;
  const char* why;
};

TEST(Value, WhatCannotBeStoredIsTold) {
  constexpr Refused kTable[] = {
      {"char 0 4", "abcde", "f: 5 bytes do not fit 4"},
      {"int 0", "70000", "f: 70000 does not fit an int"},
      {"int 0", "", "f: the value is missing"},
      {"int 0", "1e3", "f: \"1e3\" is no number"},
      {"int 0", "1.5", "f: 1.5 is no whole number"},
      {"int 0 null", "-32768", "f: -32768 stands for null"},
      {"long 0", "99999999999999999999999", "f: 99999999999999999999999 does not fit a long"},
      {"long 0 decimal 2", "1.234", "f: 1.234 has more than 2 decimals"},
      {"char 0 4 decimal 2", "-10.00", "f: -10.00 does not fit a char of 4"},
      {"float 0", "1e39", "f: 1e39 does not fit a float"},
      {"double 0", "nan", "f: \"nan\" is no number"},
      {"double 0", "1,5", "f: \"1,5\" is no number"},
      {"bytes 0 3", "0102", "f: 2 bytes do not fit 3"},
      {"bytes 0 2", "01x2", "f: \"01x2\" is no digits of bytes"},
      {"char 0 2", "hex:1", "f: the digits of bytes go by two"},
      {"long 0 date YYYYMMDD", "2026-02-29", "f: \"2026-02-29\" is no day such as 1999-12-31"},
      {"char 0 6 date YYMMDD", "1950-01-01", "f: 1950-01-01 does not fit a char of 6"},
      {"int 0 date since 1899-12-31", "2026-11-22", "f: 2026-11-22 does not fit an int"},
      {"char 0 1 boolean Y N", "Y", "f: \"Y\" is neither true nor false"},
      {"char 0 9 encoding latin1", "5 \xE2\x82\xAC",
       "f: \"5 ???\" has characters that latin1 has not"},
      {"char 0 2 encoding latin1", "\xC3\xA9\xC3\xA9\xC3\xA9", "f: 3 bytes do not fit 2"},
      {"char tail", "12345678901234567890123456789012345678901", "f: 41 bytes do not fit 40"},
  };
  std::string wrong;
  for (const auto& [line, cell, why] : kTable) {
    stored(field_of(line), cell, wrong);
    EXPECT_EQ(wrong, why) << line;
  }
  EXPECT_EQ(stored(field_of("int 0"), " +12.0 ", wrong), "\0\x0C"s);
  EXPECT_EQ(stored(field_of("char 0 5 decimal 1"), "-1", wrong), "-0010");
  EXPECT_EQ(stored(field_of("char 0 1 boolean Y N"), "TRUE", wrong), "Y");
  EXPECT_EQ(stored(field_of("double 0"), "5e-324", wrong).front(), '\x01');
}

// All rows and faults of a text that comes in pieces of `piece` bytes.
std::string rows_of(std::string text, std::size_t piece, std::size_t longest = 40) {
  CsvReader reader(
      [&](std::span<char> to) {
        const std::size_t count = std::min({to.size(), text.size(), piece});
        std::copy_n(text.begin(), count, to.begin());
        text.erase(0, count);
        return static_cast<std::ptrdiff_t>(count);
      },
      longest);
  std::string all;
  for (;;) {
    const CsvReader::Step step = reader.next();
    if (step == CsvReader::Step::kEnd) return all;
    all += std::to_string(reader.line()) + ":";
    if (step == CsvReader::Step::kFailed) return all + " " + reader.wrong();
    if (step == CsvReader::Step::kBad) all += " " + reader.wrong() + ";";
    if (step == CsvReader::Step::kRow) {
      for (const std::string_view cell : reader.cells()) all += "[" + std::string(cell) + "]";
    }
  }
}

struct Rows {
  std::string text;
  const char* rows;
};

TEST(Csv, RowsAndFaultsComeWithTheirLines) {
  const Rows kTable[] = {
      {"", ""},
      {"\xEF\xBB\xBF"
       "a,b\r\n1,2",
       "1:[a][b]2:[1][2]"},
      {"a\n\r\n\n,\n", "1:[a]4:[][]"},
      {"\"a,\r\n\"\"b\"\"\",c\r\nd", "1:[a,\r\n\"b\"][c]3:[d]"},
      {"\"\",\"\"\"\"\n\"\"", "1:[][\"]2:[]"},
      {"\"a\"\r", "1:[a]"},
      {"a\rb\nc", "1: a carriage return does not end a line;2:[c]"},
      {"x,\"a\"b,\nc", "1: a cell goes on behind its last quote;2:[c]"},
      {"a\"b\nc", "1: a quote within a cell that has none around it;2:[c]"},
      {"\"a\nb,c\nd", "1: a quote is missing;2:[b][c]3:[d]"},
      {"\"a\n" + std::string(50, 'b') + "\nd",
       "1: longer than 40 bytes;2: longer than 40 bytes;3:[d]"},
      {std::string(500, 'b') + "\nc\n" + std::string(43, ','),
       "1: longer than 40 bytes;2:[c]3: longer than 40 bytes;"},
      {"a\0b\n\xE9\n\"\xE9\"\n\"c\n\xE9\"\nd"s,
       "1: there is a zero byte;2: this is no UTF-8;3: this is no UTF-8;4: this is no UTF-8;6:[d]"},
      {"\xFF\xFE"
       "a\0"s,
       "0: this is UTF-16; CSV has to be UTF-8"},
  };
  for (const auto& [text, rows] : kTable) {
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{4096}}) {
      EXPECT_EQ(rows_of(text, piece), rows) << text << " by " << piece;
    }
  }
}

}  // namespace
}  // namespace layout
