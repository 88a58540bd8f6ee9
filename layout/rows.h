// rows: records as lines of CSV (RFC 4180) or of JSON, one object a line.
//
//   Rows rows{fields, Rows::Form::kCsv, false};
//   ... rows.header() ...
//   char* end = rows.put(number, record, tail, to);      // `to` has room for
//   rows.room(tail.size())
//
// Where the numbers of records are wanted they stand first, under the name "#", which no field has.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "layout/layout.h"
#include "layout/value.h"

namespace layout {

inline constexpr std::string_view kNumberName = "#";

class Rows {
 public:
  enum class Form : std::uint8_t { kCsv, kJson };

  Rows(Fields fields, Form form, bool has_numbers);

  // What stands before the first row.
  [[nodiscard]] const std::string& header() const { return header_; }
  [[nodiscard]] std::size_t room(std::size_t tail) const { return room_ + kMostForByte * tail; }
  // The record has all the bytes that the fields are made of.
  [[nodiscard]] char* put(std::int64_t number, Bytes record, Bytes tail, char* to) const;

 private:
  [[nodiscard]] char* put_csv_row(std::int64_t number, Bytes record, Bytes tail, char* to) const;
  [[nodiscard]] char* put_json_row(std::int64_t number, Bytes record, Bytes tail, char* to) const;

  Fields fields_;
  Form form_;
  bool has_numbers_;
  std::string header_;
  std::vector<std::string> leads_;  // in JSON, what stands before the value of each field
  std::size_t room_ = 0;
};

}  // namespace layout
