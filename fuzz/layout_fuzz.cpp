// layout_fuzz: any bytes whatever as a layout, and as records that one is drafted for.
//
// Finds   crashes, overruns, hangs; a problem told with unprintable bytes; fields that do not come
//         back from their own text, share bytes or leave the record
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "layout/draft.h"
#include "layout/layout.h"

namespace {

bool is_printable(const std::string& text) {
  return std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; });
}

// Fields that are read without a problem come back from their own text.
void read_twice(std::string_view text) {
  const layout::Reading reading = layout::read(text);
  for (const layout::Problem& problem : reading.problems) {
    if (!is_printable(problem.text)) std::abort();
  }
  if (!reading.problems.empty()) return;
  const std::string written = layout::text_of(reading.fields);
  const layout::Reading again = layout::read(written);
  if (!again.problems.empty() || layout::text_of(again.fields) != written) std::abort();
}

void draft(layout::Bytes bytes) {
  if (bytes.size() < 3) return;
  const int length = bytes[0] + 1;
  layout::Draft draft(length, bytes[1] % 2 == 1);
  draft.add_key(bytes[1] / 2, bytes[2] / 8, static_cast<layout::Type>(bytes[2] % 7), "index 1");
  bytes = bytes.subspan(3);
  for (; bytes.size() >= static_cast<std::size_t>(length);
       bytes = bytes.subspan(static_cast<std::size_t>(length))) {
    draft.add_record(bytes, {});
  }
  const layout::Fields fields = draft.fields();
  if (!layout::read(layout::text_of(fields)).problems.empty()) std::abort();
  int covered = 0;
  for (const layout::Field& field : fields) covered += field.length;
  if (covered != length) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  read_twice({reinterpret_cast<const char*>(data), size});
  draft({data, size});
  return 0;
}
