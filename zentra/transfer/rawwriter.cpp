#include "zentra/transfer/rawwriter.h"

#include <string>
#include <utility>

#include "zentra/transfer/raworder.h"
#include "zentra/transfer/rawtext.h"

namespace zentra {
namespace {

class RawWriter : public DumpWriter {
 public:
  RawWriter(PairShape shape, std::function<void(int index)> damaged)
      : shape_(std::move(shape)), damaged_(std::move(damaged)) {}

  void begin(Output& output) override { output.put(raw_header_of(shape_)); }
  [[nodiscard]] std::size_t room(const Record& record) const override {
    return raw_room(record.fixed.size() + record.tail.size());
  }
  [[nodiscard]] char* put(const Record& record, char* to) const override {
    return put_raw_record(record.number, record.fixed, record.tail, to);
  }
  void end(Output& output, std::int64_t count) override {
    if (output.error() != 0) return;
    const int index = put_raw_orders(shape_, [&](std::string_view lines) { output.put(lines); });
    if (index != 0) damaged_(index);
    std::string last;
    put_raw_end(count, last);
    output.put(last);
  }

 private:
  PairShape shape_;
  std::function<void(int index)> damaged_;
};

}  // namespace

std::unique_ptr<DumpWriter> raw_writer(PairShape shape, std::function<void(int index)> damaged) {
  return std::make_unique<RawWriter>(std::move(shape), std::move(damaged));
}

}  // namespace zentra
