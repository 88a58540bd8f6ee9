// Records of a text in CSV, whose first line names the columns.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "layout/csv.h"
#include "zentra/report/text.h"
#include "zentra/transfer/recordform.h"
#include "zentra/transfer/rows.h"

namespace zentra {
namespace {

using CsvStep = layout::CsvReader::Step;

class CsvRows : public Rows {
 public:
  CsvRows(Input& input, const layout::Fields& fields, const Lengths& lengths, Unknown unknown)
      : reader_([this, &input](std::span<char> to) {
          const ssize_t got = input.read(to);
          if (got < 0) error_ = errno;
          return got;
        }),
        form_(fields, lengths.least, lengths.greatest),
        unknown_(unknown) {}

  [[nodiscard]] Step next() override {
    if (columns_.empty() && !read_header()) return Step::kFailed;
    const CsvStep step = reader_.next();
    line_ = reader_.line();
    text_ = reader_.bytes();
    switch (step) {
      case CsvStep::kRow:
        return make_record();
      case CsvStep::kBad:
        return bad(reader_.wrong());
      case CsvStep::kEnd:
        why_.clear();
        return Step::kEnd;
      default:
        return refuse_text();
    }
  }

 private:
  Step refuse_text() {
    return failed(error_ != 0 ? std::strerror(error_)
                              : fmt::format("line {}: {}", reader_.line(), reader_.wrong()));
  }

  bool read_header() {
    switch (reader_.next()) {
      case CsvStep::kRow:
        return take_header();
      case CsvStep::kEnd:
        failed("the line with the names of the columns is missing");
        return false;
      default:
        refuse_text();
        return false;
    }
  }

  bool refuse_header(std::string why) {
    columns_.clear();
    failed(fmt::format("line {}: {}", reader_.line(), std::move(why)));
    return false;
  }

  bool take_header() {
    std::vector<bool> has_column(form_.fields().size());
    for (const std::string_view name : reader_.cells()) {
      const auto field = form_.find(name, columns_.size());
      columns_.push_back(field);
      const std::string word = shown_name(name);
      if (!field && unknown_ == Unknown::kRefused && name != kNumberName) {
        return refuse_header(fmt::format("no field is named {}", word));
      }
      if (field && has_column[*field]) return refuse_header(fmt::format("{} twice", word));
      if (field) has_column[*field] = true;
    }
    std::vector<std::string> missing;
    for (std::size_t i = 0; i < has_column.size(); ++i) {
      if (!has_column[i]) missing.push_back(form_.fields()[i].name);
    }
    if (missing.size() == has_column.size()) return refuse_header("no column is a field");
    if (!missing.empty()) {
      note_ = fmt::format("no column for {}: null, or blank or 0", fmt::join(missing, ", "));
    }
    return true;
  }

  Step make_record() {
    const auto& cells = reader_.cells();
    if (cells.size() != columns_.size()) {
      return bad(fmt::format("{} cells, but {} columns", cells.size(), columns_.size()));
    }
    form_.begin();
    for (std::size_t i = 0; i < cells.size(); ++i) {
      if (columns_[i] && !form_.set_cell(*columns_[i], cells[i])) return bad(form_.why());
    }
    bytes_ = form_.bytes();
    return Step::kRecord;
  }

  int error_ = 0;  // of the input
  layout::CsvReader reader_;
  RecordForm form_;
  Unknown unknown_;
  std::vector<std::optional<std::size_t>> columns_;  // which field each is
};

}  // namespace

std::unique_ptr<Rows> rows_of_csv(Input& input, const layout::Fields& fields,
                                  const Lengths& lengths, Unknown unknown) {
  return std::make_unique<CsvRows>(input, fields, lengths, unknown);
}

}  // namespace zentra
