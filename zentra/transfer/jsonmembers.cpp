#include "zentra/transfer/jsonmembers.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "layout/chunk.h"
#include "layout/forms.h"

namespace zentra {
namespace {

using layout::Kind;
using nlohmann::json;

constexpr const char* kNoObject = "no object of JSON";
constexpr const char* kNoValue = "an object is no value of a field, but for {\"hex\":\"...\"}";

}  // namespace

// What the parser meets on a line: each call answers whether it is to go on.
class JsonMembers::Events : public nlohmann::json_sax<json> {
 public:
  explicit Events(JsonMembers& members) : members_(members) {}

  bool null() override { return put(Kind::kNull, "null"); }
  bool boolean(bool value) override { return put(Kind::kBoolean, value ? "true" : "false"); }
  bool number_integer(number_integer_t value) override {
    return put(Kind::kNumber, std::to_string(value));
  }
  bool number_unsigned(number_unsigned_t value) override {
    return put(Kind::kNumber, std::to_string(value));
  }
  bool number_float(number_float_t /*value*/, const string_t& text) override {
    return put(Kind::kNumber, text);
  }
  bool string(string_t& text) override { return put(Kind::kText, text); }
  bool binary(binary_t& /*bytes*/) override { return fail(kNoValue); }

  bool start_object(std::size_t /*size*/) override {
    ++depth_;
    has_hex_ = false;
    return depth_ <= 2 || fail(kNoValue);
  }
  bool key(string_t& name) override {
    if (depth_ == 2) return (name == "hex" && !has_hex_) || fail(kNoValue);
    Member& member = members_.add();
    member.own_name = name;
    member.name = member.own_name;
    return true;
  }
  bool end_object() override {
    --depth_;
    return depth_ == 0 || has_hex_ || fail(kNoValue);
  }
  bool start_array(std::size_t /*size*/) override {
    return fail(depth_ == 0 ? kNoObject : "an array is no value of a field");
  }
  bool end_array() override { return true; }
  bool parse_error(std::size_t position, const std::string& /*token*/,
                   const nlohmann::detail::exception& error) override {
    constexpr int kTooGreat = 406;
    return fail(error.id == kTooGreat ? "a number is greater than any field takes"
                                      : fmt::format("no JSON at byte {}", position));
  }

 private:
  bool fail(std::string why) {
    members_.why_ = std::move(why);
    return false;
  }
  bool put(Kind kind, std::string_view text) {
    if (depth_ == 0) return fail(kNoObject);
    if (depth_ == 2 && kind != Kind::kText) return fail(kNoValue);
    Member& member = members_.members_[members_.count_ - 1];
    has_hex_ = depth_ == 2;
    member.kind = has_hex_ ? Kind::kHex : kind;
    member.own_value = text;
    member.value = member.own_value;
    return true;
  }

  JsonMembers& members_;
  int depth_ = 0;
  bool has_hex_ = false;
};

namespace {

// A line as nearly all are, read in one go. What answers false is to be left to the parser: it may
// be right all the same.
class UsualLine {
 public:
  explicit UsualLine(std::string_view line) : at_(line.data()), end_(at_ + line.size()) {}

  void pass_blanks() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\r')) ++at_;
  }
  [[nodiscard]] bool is_at_end() const { return at_ == end_; }
  [[nodiscard]] char front() const { return *at_; }
  [[nodiscard]] bool pass(char c) {
    if (at_ == end_ || *at_ != c) return false;
    ++at_;
    return true;
  }
  [[nodiscard]] bool pass(std::string_view word) {
    if (!std::string_view{at_, end_}.starts_with(word)) return false;
    at_ += word.size();
    return true;
  }

  // A string in which nothing is escaped; it may be UTF-8.
  [[nodiscard]] bool take_string(std::string_view& to) {
    if (!pass('"')) return false;
    const char* const begin = at_;
    using layout::Chunk;
    const Chunk blanks = Chunk{} + static_cast<unsigned char>(' ');
    for (; end_ - at_ >= std::ptrdiff_t{sizeof(Chunk)}; at_ += sizeof(Chunk)) {
      const Chunk chunk = layout::chunk_at(at_);
      const Chunk marked = layout::is_byte(chunk, '"') | layout::is_byte(chunk, '\\') |
                           reinterpret_cast<Chunk>(chunk < blanks);
      if (!layout::has_any(marked)) continue;
      at_ += layout::first_of(marked);
      break;
    }
    while (at_ != end_ && *at_ != '"' && *at_ != '\\' && static_cast<unsigned char>(*at_) >= ' ') {
      ++at_;
    }
    to = {begin, at_};
    return pass('"');
  }

  // Digits with or without a point, as the parser gives them back: not so many that they would be
  // rounded, no zeros in front, no -0.
  [[nodiscard]] bool take_number(std::string_view& to) {
    constexpr std::ptrdiff_t kMostDigits = 17;
    const char* const begin = at_;
    const bool is_negative = pass('-');
    const char* const first = at_;
    pass_digits();
    const std::ptrdiff_t whole = at_ - first;
    const bool is_zero = whole == 1 && *first == '0';
    if (whole == 0 || (*first == '0' && !is_zero)) return false;
    if (pass('.')) {
      const char* const fraction = at_;
      pass_digits();
      if (at_ == fraction) return false;
    } else if (is_negative && is_zero) {
      return false;
    }
    to = {begin, at_};
    return at_ - first <= kMostDigits && (at_ == end_ || (*at_ != 'e' && *at_ != 'E'));
  }

 private:
  void pass_digits() {
    while (at_ != end_ && *at_ >= '0' && *at_ <= '9') ++at_;
  }

  const char* at_;
  const char* end_;
};

bool take_value(UsualLine& line, Kind& kind, std::string_view& value) {
  const char first = line.is_at_end() ? '\0' : line.front();
  if (first == '"') {
    kind = Kind::kText;
    return line.take_string(value);
  }
  if (first == '{') {
    kind = Kind::kHex;
    return line.pass("{\"hex\":") && line.take_string(value) && line.pass('}');
  }
  for (const std::string_view word : {"null", "true", "false"}) {
    if (first != word.front()) continue;
    kind = first == 'n' ? Kind::kNull : Kind::kBoolean;
    value = word;
    return line.pass(word);
  }
  kind = Kind::kNumber;
  return line.take_number(value);
}

}  // namespace

JsonMembers::Member& JsonMembers::add() {
  if (count_ == members_.size()) members_.emplace_back();
  return members_[count_++];
}

// Whether it is a line of the usual kind: then its members are the same that the parser would find.
bool JsonMembers::take_usual(std::string_view text) {
  UsualLine line{text};
  line.pass_blanks();
  if (!line.pass('{')) return false;
  do {
    Member& member = add();
    line.pass_blanks();
    if (!line.take_string(member.name)) return false;
    line.pass_blanks();
    if (!line.pass(':')) return false;
    line.pass_blanks();
    if (!take_value(line, member.kind, member.value)) return false;
    line.pass_blanks();
  } while (line.pass(','));
  if (!line.pass('}')) return false;
  line.pass_blanks();
  return line.is_at_end();
}

void JsonMembers::begin(std::string_view line) {
  at_ = 0;
  count_ = 0;
  why_ = layout::is_utf8(line) ? "" : "no UTF-8";
  if (!why_.empty() || take_usual(line)) return;
  count_ = 0;
  // The parser would take a zero byte for the end, and leave out what follows.
  if (line.find('\0') != line.npos) {
    why_ = "there is a zero byte";
    return;
  }
  Events events{*this};
  if (!json::sax_parse(line.begin(), line.end(), &events)) count_ = 0;
}

}  // namespace zentra
