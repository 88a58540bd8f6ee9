// dumpwriter: the forms in which `zentra dump` writes records.
//
//   begin -> put for each record -> end
//
// Keeps   records may be put by several threads at the same time
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "layout/layout.h"
#include "zentra/files/output.h"
#include "zentra/transfer/records.h"

namespace zentra {

class DumpWriter {
 public:
  virtual ~DumpWriter() = default;

  // The current pair is the one that is dumped.
  virtual void begin(Output& output) = 0;
  // Puts the text of a record to where there is room() for it: the end.
  [[nodiscard]] virtual std::size_t room(const Record& record) const = 0;
  [[nodiscard]] virtual char* put(const Record& record, char* to) const = 0;
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
