// recordform: a record put together from the values of its fields.
//
//   RecordForm form{fields, lengths};
//   form.begin();
//   if (!form.set(2, Kind::kText, "SMITH")) return refused(form.why());
//   use(form.bytes());
//
// Needs   fields that fit the record length
// Keeps   a field that is not set is as layout::store_nothing() leaves it; bytes that no field has
//         are zero
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "isam/base/format.h"
#include "layout/layout.h"
#include "layout/value.h"

namespace zentra {

class RecordForm {
 public:
  RecordForm(layout::Fields fields, int least, int greatest);

  [[nodiscard]] const layout::Fields& fields() const { return fields_; }
  // Which field has the name; `guess` is looked at first.
  [[nodiscard]] std::optional<std::size_t> find(std::string_view name, std::size_t guess = 0) const;

  void begin();
  // False: why() tells.
  [[nodiscard]] bool set(std::size_t field, layout::Kind kind, std::string_view text);
  [[nodiscard]] bool set_cell(std::size_t field, std::string_view cell);
  [[nodiscard]] isam::ConstBytes bytes() const { return {record_.data(), length_}; }
  [[nodiscard]] const std::string& why() const { return why_; }

 private:
  [[nodiscard]] std::span<isam::Byte> room_of(const layout::Field& field);
  [[nodiscard]] bool take(const layout::Field& field, layout::Stored stored);

  layout::Fields fields_;
  std::unordered_map<std::string_view, std::size_t> names_;  // of fields_
  std::size_t least_;
  std::vector<isam::Byte> empty_;   // a record of which nothing is told
  std::vector<isam::Byte> record_;  // of the greatest length
  std::size_t length_ = 0;
  std::string why_;
};

}  // namespace zentra
