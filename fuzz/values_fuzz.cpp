// values_fuzz: any bytes whatever as records of any fields, and as CSV.
//
// Finds   crashes, overruns; values that give back other bytes, from plain text or from the cells
// of
//         CSV as they are read again; more text than was said; rows that depend on the pieces in
//         which they come
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "layout/csv.h"
#include "layout/rows.h"
#include "layout/value.h"

namespace {

using layout::CsvReader;
using Bytes = std::vector<unsigned char>;

constexpr std::size_t kMostFields = 40;
constexpr std::size_t kLongest = 100000;

CsvReader::Source source_of(std::string_view text, std::size_t piece) {
  return [text, piece](std::span<char> to) mutable {
    const std::size_t count = std::min({text.size(), to.size(), piece});
    std::copy_n(text.begin(), count, to.begin());
    text.remove_prefix(count);
    return static_cast<std::ptrdiff_t>(count);
  };
}

// Everything that is read of a text.
std::string rows_of(std::string_view text, std::size_t piece, std::size_t longest) {
  CsvReader reader{source_of(text, piece), longest};
  std::string all;
  for (;;) {
    const CsvReader::Step step = reader.next();
    all += std::to_string(static_cast<int>(step)) + ' ' + std::to_string(reader.line()) +
           reader.wrong();
    if (step == CsvReader::Step::kEnd || step == CsvReader::Step::kFailed) return all;
    if (step == CsvReader::Step::kRow) {
      for (const std::string_view cell : reader.cells()) {
        all += '[';
        all += cell;
        all += ']';
      }
    }
    all += '\n';
  }
}

// The bytes that a value stores.
Bytes stored(const layout::Stored& done, Bytes bytes) {
  if (!done.wrong.empty()) std::abort();
  bytes.resize(done.length);
  return bytes;
}

void dump_and_load(const layout::Fields& fields, layout::Bytes record, layout::Bytes tail) {
  const layout::Rows rows{fields, layout::Rows::Form::kCsv, false};
  const layout::Rows objects{fields, layout::Rows::Form::kJson, true};
  std::vector<char> text(rows.room(tail.size()));
  std::vector<char> object(objects.room(tail.size()));
  if (objects.put(1, record, tail, object.data()) > object.data() + object.size()) std::abort();
  const char* const end = rows.put(1, record, tail, text.data());
  const auto length = static_cast<std::size_t>(end - text.data());
  if (length > text.size()) std::abort();
  CsvReader reader{source_of({text.data(), length}, length)};
  if (reader.next() != CsvReader::Step::kRow || reader.cells().size() != fields.size())
    std::abort();
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const layout::Bytes bytes = bytes_of(fields[i], record, tail);
    Bytes room(fields[i].is_tail ? tail.size() : bytes.size(), 'x');
    if (!std::ranges::equal(stored(store_csv(fields[i], reader.cells()[i], room), room), bytes)) {
      std::abort();
    }
    std::vector<char> plain(layout::text_room(bytes.size()));
    const layout::Put put = put_plain(fields[i], bytes, plain.data());
    const std::string_view value{plain.data(), static_cast<std::size_t>(put.end - plain.data())};
    if (!std::ranges::equal(stored(store(fields[i], put.kind, value, room), room), bytes)) {
      std::abort();
    }
  }
}

// A layout up to a zero byte, then records of its length with a tail between them.
void take_records(std::string_view text) {
  const auto end = text.find('\0');
  const layout::Reading reading = layout::read(text.substr(0, end));
  if (end == text.npos || !reading.problems.empty() || reading.fields.size() > kMostFields) return;
  std::size_t length = 0;
  for (const layout::Field& field : reading.fields) {
    length = std::max(length, static_cast<std::size_t>(field.is_tail ? 0 : field.end()));
  }
  text.remove_prefix(end + 1);
  const layout::Bytes bytes{reinterpret_cast<const unsigned char*>(text.data()), text.size()};
  if (bytes.size() >= length) {
    dump_and_load(reading.fields, bytes.first(length),
                  bytes.subspan(length).first(std::min<std::size_t>(bytes.size() - length, 64)));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text{reinterpret_cast<const char*>(data), size};
  take_records(text);
  const std::string rows = rows_of(text, size + 1, kLongest);
  if (rows_of(text, 3, kLongest) != rows) std::abort();
  static_cast<void>(rows_of(text, 5, 20));
  return 0;
}
