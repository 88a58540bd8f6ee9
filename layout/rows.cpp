#include "layout/rows.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace layout {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::size_t kNumberRoom = 32;

char* copy(std::string_view text, char* to) { return std::copy(text.begin(), text.end(), to); }

char* put_number(std::int64_t number, char* to) {
  return std::to_chars(to, to + kNumberRoom, number).ptr;
}

}  // namespace

Rows::Rows(Fields fields, Form form, bool has_numbers)
    : fields_(std::move(fields)), form_(form), has_numbers_(has_numbers) {
  std::string names = has_numbers ? std::string(kNumberName) : std::string();
  room_ = 2 * kNumberRoom;
  for (const Field& field : fields_) {
    leads_.push_back((names.empty() ? "{\"" : ",\"") + field.name + "\":");
    names += (names.empty() ? "" : ",") + field.name;
    room_ += leads_.back().size() + text_room(static_cast<std::size_t>(field.length));
  }
  if (form == Form::kCsv) header_ = names + std::string(kLineEnd);
}

char* Rows::put(std::int64_t number, Bytes record, Bytes tail, char* to) const {
  return form_ == Form::kCsv ? put_csv_row(number, record, tail, to)
                             : put_json_row(number, record, tail, to);
}

char* Rows::put_csv_row(std::int64_t number, Bytes record, Bytes tail, char* to) const {
  const char* const begin = to;
  if (has_numbers_) to = put_number(number, to);
  bool is_first = !has_numbers_;
  for (const Field& field : fields_) {
    if (!std::exchange(is_first, false)) *to++ = ',';
    to = put_csv(field, bytes_of(field, record, tail), to);
  }
  if (to == begin) to = copy("\"\"", to);  // an empty line would be no row
  return copy(kLineEnd, to);
}

char* Rows::put_json_row(std::int64_t number, Bytes record, Bytes tail, char* to) const {
  if (has_numbers_) to = put_number(number, copy("{\"#\":", to));
  for (std::size_t i = 0; i < fields_.size(); ++i) {
    to = copy(leads_[i], to);
    to = put_json(fields_[i], bytes_of(fields_[i], record, tail), to);
  }
  return copy("}\n", to);
}

}  // namespace layout
