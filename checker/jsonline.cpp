#include "checker/jsonline.h"

#include <array>
#include <charconv>

#include "common/printable.h"

namespace checker {
namespace {

constexpr std::string_view kEscaped = "\"\\\b\f\n\r\t";
constexpr std::string_view kLetters = "\"\\bfnrt";  // what stands for each behind a backslash

template <typename Number>
void append_number(std::string& text, Number number) {
  std::array<char, 32> room;
  const auto end = std::to_chars(room.data(), room.data() + room.size(), number);
  text.append(room.data(), end.ptr);
}

}  // namespace

void JsonLine::put_text(std::string_view text) {
  text_ += '"';
  for (const char c : text) {
    const std::size_t at = kEscaped.find(c);
    if (at != kEscaped.npos) {
      text_ += {'\\', kLetters[at]};
    } else if (static_cast<unsigned char>(c) < ' ') {
      text_ += "\\u00" + common::hex({&c, 1});
    } else {
      text_ += c;
    }
  }
  text_ += '"';
}

void JsonLine::put_name(std::string_view name) {
  if (text_.back() != '{') text_ += ',';
  put_text(name);
  text_ += ':';
}

void JsonLine::put_value(const Value& value) {
  if (const auto* bytes = std::get_if<FileBytes>(&value)) {
    text_ += '{';
    add("hex", common::hex(bytes->bytes));
    if (common::is_printable(bytes->bytes)) add("text", bytes->bytes);
    text_ += '}';
  } else if (const auto* text = std::get_if<std::string>(&value)) {
    put_text(*text);
  } else if (const auto* flag = std::get_if<bool>(&value)) {
    text_ += *flag ? "true" : "false";
  } else if (const auto* number = std::get_if<double>(&value)) {
    append_number(text_, *number);
  } else {
    append_number(text_, std::get<std::int64_t>(value));
  }
}

JsonLine& JsonLine::add(std::string_view name, const Value& value) {
  put_name(name);
  put_value(value);
  return *this;
}

JsonLine& JsonLine::add(const Fields& fields) {
  for (const auto& [name, value] : fields) add(name, value);
  return *this;
}

JsonLine& JsonLine::add(const Entry& entry) {
  add("code", entry.code);
  if (entry.kind == Entry::Kind::kFinding) add("verdict", verdict_of(entry.status));
  if (entry.key != 0) add("index", entry.key);
  add(entry.fields);
  if (!entry.text.empty()) add("message", entry.text);
  return *this;
}

}  // namespace checker
