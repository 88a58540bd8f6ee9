// Records of a text with one object of JSON a line: by the names of fields; or losses of a repair,
// which have all their bytes in hexadecimal (zentra/repair/losses).
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "zentra/report/text.h"
#include "zentra/transfer/jsonmembers.h"
#include "zentra/transfer/recordform.h"
#include "zentra/transfer/rows.h"

namespace zentra {
namespace {

int digit_of(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// False where there is something else than pairs of digits, or more than `room`.
bool append_bytes(std::string_view digits, std::size_t room, std::vector<isam::Byte>& to) {
  if (digits.size() % 2 != 0 || digits.size() / 2 > room) return false;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const int high = digit_of(digits[i]);
    const int low = digit_of(digits[i + 1]);
    if (high < 0 || low < 0) return false;
    to.push_back(static_cast<isam::Byte>(high << 4 | low));
  }
  return true;
}

class JsonRows : public Rows {
 public:
  JsonRows(Input& input, const layout::Fields& fields, const Lengths& lengths, Unknown unknown)
      : lines_(input),
        form_(fields, lengths.least, lengths.greatest),
        lengths_(lengths),
        unknown_(unknown),
        is_given_(fields.size()) {}

  [[nodiscard]] Step next() override {
    for (;;) {
      const LineReader::Got got = lines_.next();
      if (got == LineReader::Got::kFailed) return failed(std::strerror(errno));
      why_.clear();
      if (got == LineReader::Got::kEnd) return Step::kEnd;
      line_ = lines_.number();
      text_ = lines_.line();
      if (line_ == 1 && text_.starts_with("\xEF\xBB\xBF")) text_.remove_prefix(3);
      if (got == LineReader::Got::kTooLong) return bad(kTooLong);
      if (text_.find_first_not_of(" \t\r") != text_.npos) return make_record();
    }
  }

 private:
  Step make_record() {
    form_.begin();
    std::fill(is_given_.begin(), is_given_.end(), false);
    members_.begin(text_);
    for (std::size_t guess = 0; members_.next(); ++guess) {
      const auto field = form_.find(members_.name(), guess);
      if (!field && guess == 0 && members_.name() == "schema") return take_loss();
      const bool is_passed = unknown_ == Unknown::kIgnored || members_.name() == kNumberName;
      if (!field && is_passed) continue;
      if (!field) return bad(fmt::format("no field is named {}", shown_name(members_.name())));
      if (is_given_[*field]) return bad(fmt::format("{} twice", shown_name(members_.name())));
      is_given_[*field] = true;
      guess = *field;
      if (!form_.set(*field, members_.kind(), members_.value())) return bad(form_.why());
    }
    if (!members_.why().empty()) return bad(members_.why());
    bytes_ = form_.bytes();
    return Step::kRecord;
  }

  // What is said of it is ignored, but for what a repair has left over of a record that had been
  // deleted before.
  Step take_loss() {
    loss_.clear();
    bool is_loss = false;
    bool has_record = false;
    std::string variable;
    while (members_.next()) {
      const std::string_view value = members_.value();
      if (members_.name() == "type") is_loss = value == "lost-record";
      if (members_.name() == "variable") variable = value;
      if (members_.name() == "reason" && value == "storage.reference-left") {
        return bad("what was left of a deleted record");
      }
      if (members_.name() != "fixed") continue;
      const auto least = static_cast<std::size_t>(lengths_.least);
      has_record = append_bytes(value, least, loss_) && loss_.size() == least;
      if (!has_record) {
        return bad(fmt::format("\"fixed\" is not {} bytes in hexadecimal", lengths_.least));
      }
    }
    if (!members_.why().empty()) return bad(members_.why());
    if (!is_loss || !has_record) return bad("neither a record nor a loss of a repair");
    const auto room = static_cast<std::size_t>(lengths_.greatest - lengths_.least);
    if (!append_bytes(variable, room, loss_)) {
      return bad(fmt::format("\"variable\" is not {} bytes at most in hexadecimal", room));
    }
    bytes_ = loss_;
    return Step::kRecord;
  }

  LineReader lines_;
  RecordForm form_;
  Lengths lengths_;
  Unknown unknown_;
  JsonMembers members_;
  std::vector<bool> is_given_;
  std::vector<isam::Byte> loss_;
};

}  // namespace

std::unique_ptr<Rows> rows_of_json(Input& input, const layout::Fields& fields,
                                   const Lengths& lengths, Unknown unknown) {
  return std::make_unique<JsonRows>(input, fields, lengths, unknown);
}

}  // namespace zentra
