// dumpwriter: the forms in which `zentra dump` writes records.
//
//   begin -> record for each -> end
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "layout/layout.h"
#include "zentra/output.h"
#include "zentra/records.h"

namespace zentra {

class DumpWriter {
 public:
  virtual ~DumpWriter() = default;

  // The current pair is the one that is dumped.
  virtual void begin(Output& output) = 0;
  virtual void record(Output& output, const Record& record) = 0;
  // `count`: the records that there were.
  virtual void end(Output& output, std::int64_t count) = 0;

 protected:
  DumpWriter() = default;
  DumpWriter(const DumpWriter&) = default;
  DumpWriter& operator=(const DumpWriter&) = default;
};

// CSV, or JSON with an object a line. `has_numbers`: the number of each record stands first.
[[nodiscard]] std::unique_ptr<DumpWriter> row_writer(bool is_json, layout::Fields fields,
                                                     bool has_numbers);

}  // namespace zentra
