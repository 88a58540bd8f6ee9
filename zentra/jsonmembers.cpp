#include "zentra/jsonmembers.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

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
    if (members_.count_ == members_.members_.size()) members_.members_.emplace_back();
    members_.members_[members_.count_++].name = name;
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
    member.value = text;
    return true;
  }

  JsonMembers& members_;
  int depth_ = 0;
  bool has_hex_ = false;
};

void JsonMembers::begin(std::string_view line) {
  at_ = 0;
  count_ = 0;
  why_ = layout::is_utf8(line) ? "" : "no UTF-8";
  if (!why_.empty()) return;
  Events events{*this};
  if (!json::sax_parse(line.begin(), line.end(), &events)) count_ = 0;
}

}  // namespace zentra
