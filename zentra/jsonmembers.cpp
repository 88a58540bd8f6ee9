#include "zentra/jsonmembers.h"

#include <algorithm>
#include <array>
#include <utility>

#include "layout/forms.h"

namespace zentra {
namespace {

using layout::Kind;

// What ends the plain part of a string.
constexpr std::array<bool, 256> ends_of_plain() {
  std::array<bool, 256> ends{};
  for (std::size_t byte = 0; byte < ' '; ++byte) ends[byte] = true;
  ends['"'] = ends['\\'] = true;
  return ends;
}
constexpr std::array<bool, 256> kEndsPlain = ends_of_plain();

const char* end_of_plain(const char* at, const char* end) {
  while (at != end && !kEndsPlain[static_cast<unsigned char>(*at)]) ++at;
  return at;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

void append_utf8(std::uint32_t code, std::string& to) {
  const auto put = [&](std::uint32_t byte) { to += static_cast<char>(byte); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 | code >> 6);
    put(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  } else {
    put(0xF0 | code >> 18);
    put(0x80 | (code >> 12 & 0x3F));
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  }
}

}  // namespace

void JsonMembers::begin(std::string_view line) {
  at_ = line.data();
  end_ = at_ + line.size();
  is_first_ = true;
  is_done_ = false;
  why_.clear();
  pass_blanks();
  if (!take('{')) {
    fail("no object of JSON");
  } else if (!layout::is_utf8(line)) {
    fail("no UTF-8");
  }
}

bool JsonMembers::fail(const char* why) {
  why_ = why;
  is_done_ = true;
  return false;
}

void JsonMembers::pass_blanks() {
  while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\r')) ++at_;
}

bool JsonMembers::take(char sign) {
  if (at_ == end_ || *at_ != sign) return false;
  ++at_;
  return true;
}

// Nothing may follow.
bool JsonMembers::finish() {
  pass_blanks();
  if (at_ != end_) return fail("something stands behind the object");
  is_done_ = true;
  return false;
}

bool JsonMembers::next() {
  if (is_done_) return false;
  pass_blanks();
  if (take('}')) {
    return finish();
  }
  if (!is_first_ && !take(',')) return fail("a comma or } is missing");
  is_first_ = false;
  pass_blanks();
  if (!take_string(name_room_, name_)) return false;
  pass_blanks();
  if (!take(':')) return fail("a colon is missing");
  pass_blanks();
  return take_value();
}

bool JsonMembers::take_string(std::string& room, std::string_view& to) {
  if (!take('"')) return fail("a string is missing");
  const char* const plain_end = end_of_plain(at_, end_);
  if (plain_end == end_) return fail("a string has no end");
  if (*plain_end != '"') return unescape(room, to, plain_end);
  to = {at_, static_cast<std::size_t>(plain_end - at_)};
  at_ = plain_end + 1;
  return true;
}

bool JsonMembers::unescape(std::string& room, std::string_view& to, const char* plain_end) {
  room.clear();
  for (;;) {
    room.append(at_, plain_end);
    at_ = plain_end;
    if (at_ == end_) return fail("a string has no end");
    if (take('"')) break;
    if (!take('\\')) return fail("a control character in a string");
    if (!take_escape(room)) return false;
    plain_end = end_of_plain(at_, end_);
  }
  to = room;
  return true;
}

bool JsonMembers::take_code(std::uint32_t& code) {
  constexpr int kDigitsOfCode = 4;
  code = 0;
  for (int i = 0; i < kDigitsOfCode; ++i, ++at_) {
    if (at_ == end_) return fail("a string has no end");
    const char c = *at_;
    const int digit = is_digit(c)              ? c - '0'
                      : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                      : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                               : -1;
    if (digit < 0) return fail("\\u without four digits");
    code = code << 4 | static_cast<std::uint32_t>(digit);
  }
  return true;
}

bool JsonMembers::take_escape(std::string& room) {
  constexpr std::string_view kLetters = "\"\\/bfnrt";
  constexpr std::string_view kMeant = "\"\\/\b\f\n\r\t";
  if (at_ == end_) return fail("a string has no end");
  if (!take('u')) {
    const std::size_t which = kLetters.find(*at_);
    if (which == kLetters.npos) return fail("an unknown escape in a string");
    room += kMeant[which];
    ++at_;
    return true;
  }
  std::uint32_t code = 0;
  if (!take_code(code)) return false;
  if (code >= 0xD800 && code < 0xE000) {
    std::uint32_t low = 0;
    if (code >= 0xDC00 || !take('\\') || !take('u')) return fail("half a character in a string");
    if (!take_code(low)) return false;
    if (low < 0xDC00 || low >= 0xE000) return fail("half a character in a string");
    code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
  }
  append_utf8(code, room);
  return true;
}

bool JsonMembers::take_value() {
  if (at_ == end_) return fail("a value is missing");
  switch (*at_) {
    case '"':
      kind_ = Kind::kText;
      return take_string(value_room_, value_);
    case '{':
      return take_hex();
    case '[':
      return fail("an array is no value of a field");
    case 't':
    case 'f':
    case 'n':
      return take_word();
    default:
      return take_number();
  }
}

bool JsonMembers::take_word() {
  for (const std::string_view word : {"true", "false", "null"}) {
    const std::string_view rest{at_, static_cast<std::size_t>(end_ - at_)};
    if (!rest.starts_with(word)) continue;
    kind_ = word == "null" ? Kind::kNull : Kind::kBoolean;
    value_ = rest.substr(0, word.size());
    at_ += word.size();
    return true;
  }
  return fail("no value of JSON");
}

bool JsonMembers::take_number() {
  const char* const begin = at_;
  const auto digits = [&] {
    const char* const from = at_;
    while (at_ != end_ && is_digit(*at_)) ++at_;
    return at_ != from;
  };
  static_cast<void>(take('-'));
  if (!take('0') && !digits()) return fail("no value of JSON");
  if (take('.') && !digits()) return fail("a number without digits behind its point");
  if (take('e') || take('E')) {
    if (!take('+')) static_cast<void>(take('-'));
    if (!digits()) return fail("a number without digits in its exponent");
  }
  kind_ = Kind::kNumber;
  value_ = {begin, static_cast<std::size_t>(at_ - begin)};
  return true;
}

bool JsonMembers::take_hex() {
  constexpr const char* kNoValue = "an object is no value of a field, but for {\"hex\":\"...\"}";
  std::string room;
  std::string_view name;
  static_cast<void>(take('{'));
  pass_blanks();
  if (!take_string(room, name)) return false;
  pass_blanks();
  if (name != "hex" || !take(':')) return fail(kNoValue);
  pass_blanks();
  if (!take_string(value_room_, value_)) return false;
  pass_blanks();
  if (!take('}')) return fail(kNoValue);
  kind_ = Kind::kHex;
  return true;
}

}  // namespace zentra
