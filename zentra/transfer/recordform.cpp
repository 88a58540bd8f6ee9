#include "zentra/transfer/recordform.h"

#include <algorithm>
#include <span>
#include <utility>

namespace zentra {

RecordForm::RecordForm(layout::Fields fields, int least, int greatest)
    : fields_(std::move(fields)),
      least_(static_cast<std::size_t>(least)),
      record_(static_cast<std::size_t>(greatest)) {
  for (std::size_t i = 0; i < fields_.size(); ++i) {
    names_.emplace(fields_[i].name, i);
    if (!fields_[i].is_tail) layout::store_nothing(fields_[i], room_of(fields_[i]));
  }
  empty_.assign(record_.begin(), record_.begin() + least);
}

std::span<isam::Byte> RecordForm::room_of(const layout::Field& field) {
  const std::span all{record_};
  if (field.is_tail) return all.subspan(least_);
  return all.subspan(static_cast<std::size_t>(field.offset),
                     static_cast<std::size_t>(field.length));
}

std::optional<std::size_t> RecordForm::find(std::string_view name, std::size_t guess) const {
  if (guess < fields_.size() && fields_[guess].name == name) return guess;
  const auto at = names_.find(name);
  if (at == names_.end()) return {};
  return at->second;
}

void RecordForm::begin() {
  std::ranges::copy(empty_, record_.begin());
  length_ = least_;
}

bool RecordForm::take(const layout::Field& field, layout::Stored stored) {
  if (!stored.wrong.empty()) {
    why_ = std::move(stored.wrong);
    return false;
  }
  if (field.is_tail) length_ = least_ + stored.length;
  return true;
}

bool RecordForm::set(std::size_t field, layout::Kind kind, std::string_view text) {
  const layout::Field& to = fields_[field];
  return take(to, layout::store(to, kind, text, room_of(to)));
}

bool RecordForm::set_cell(std::size_t field, std::string_view cell) {
  const layout::Field& to = fields_[field];
  return take(to, layout::store_csv(to, cell, room_of(to)));
}

}  // namespace zentra
