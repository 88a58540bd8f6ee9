// jsonline: one object of JSON on one line.
//
//   JsonLine line("pair");
//   line.add("pair", 1).add("name", FileBytes{name});
//   file.append(line.text());    // {"type":"pair","pair":1,"name":{"hex":"61","text":"a"}}
//
// Needs   texts in UTF-8. Bytes that may be anything are FileBytes
#pragma once

#include <string>
#include <string_view>

#include "checker/entry.h"

namespace checker {

class JsonLine {
 public:
  JsonLine() = default;
  explicit JsonLine(const char* type) { add("type", type); }

  JsonLine& add(std::string_view name, const Value& value);
  JsonLine& add(const Fields& fields);
  // What an entry tells, behind the number of its pair.
  JsonLine& add(const Entry& entry);

  // The whole line with its end.
  [[nodiscard]] std::string text() const { return text_ + "}\n"; }

 private:
  void put_name(std::string_view name);
  void put_text(std::string_view text);
  void put_value(const Value& value);

  std::string text_ = "{";
};

}  // namespace checker
