// jsonmembers: the members of an object that stands on one line, with values that a field may have.
//
//   JsonMembers members;
//   members.begin(line);
//   while (members.next()) use(members.name(), members.kind(), members.value());
//   if (!members.why().empty()) return refused(members.why());
//
// A value is a string, a number, true, false, null, or {"hex":"0aff"}. Memory is kept from line to
// line.
//
// Keeps   texts are UTF-8; a name or a value is valid until the next one
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "layout/value.h"

namespace zentra {

class JsonMembers {
 public:
  void begin(std::string_view line);
  // False behind the last one, and where the line is no such object: why() tells then.
  [[nodiscard]] bool next();

  [[nodiscard]] std::string_view name() const { return name_; }
  [[nodiscard]] layout::Kind kind() const { return kind_; }
  [[nodiscard]] std::string_view value() const { return value_; }
  [[nodiscard]] const std::string& why() const { return why_; }

 private:
  bool fail(const char* why);
  void pass_blanks();
  [[nodiscard]] bool take(char sign);
  // Each takes what begins there; `room`: for a string with escapes.
  [[nodiscard]] bool take_string(std::string& room, std::string_view& to);
  [[nodiscard]] bool unescape(std::string& room, std::string_view& to, const char* plain_end);
  [[nodiscard]] bool take_code(std::uint32_t& code);
  [[nodiscard]] bool take_escape(std::string& room);
  [[nodiscard]] bool take_value();
  [[nodiscard]] bool take_word();
  [[nodiscard]] bool take_number();
  [[nodiscard]] bool take_hex();
  bool finish();

  const char* at_ = nullptr;
  const char* end_ = nullptr;
  bool is_first_ = true;
  bool is_done_ = true;
  std::string_view name_;
  layout::Kind kind_ = layout::Kind::kNull;
  std::string_view value_;
  std::string name_room_;
  std::string value_room_;
  std::string why_;
};

}  // namespace zentra
