#include "zentra/transfer/dumpwriter.h"

#include <utility>

#include "layout/rows.h"

namespace zentra {
namespace {

class RowWriter : public DumpWriter {
 public:
  RowWriter(bool is_json, layout::Fields fields, bool has_numbers)
      : rows_(std::move(fields), is_json ? layout::Rows::Form::kJson : layout::Rows::Form::kCsv,
              has_numbers) {}

  void begin(Output& output) override { output.put(rows_.header()); }
  [[nodiscard]] std::size_t room(const Record& record) const override {
    return rows_.room(record.tail.size());
  }
  [[nodiscard]] char* put(const Record& record, char* to) const override {
    return rows_.put(record.number, record.fixed, record.tail, to);
  }
  void end(Output& /*output*/, std::int64_t /*count*/) override {}

 private:
  layout::Rows rows_;
};

}  // namespace

std::unique_ptr<DumpWriter> row_writer(bool is_json, layout::Fields fields, bool has_numbers) {
  return std::make_unique<RowWriter>(is_json, std::move(fields), has_numbers);
}

}  // namespace zentra
