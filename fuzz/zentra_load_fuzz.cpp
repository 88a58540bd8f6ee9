// zentra_load_fuzz: any bytes whatever as the raw text of a pair, and as lines of JSON.
//
// Finds   crashes, overruns, hangs; a raw record that does not come back from its own line; a
//         reason with unprintable bytes; a number that does not ascend; a line of JSON that is
//         read otherwise than the parser does
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zentra/report/text.h"
#include "zentra/transfer/jsonmembers.h"
#include "zentra/transfer/rawtext.h"

namespace {

using Line = zentra::RawReader::Line;

void expect(bool right) {
  if (!right) std::abort();
}

void write_again(zentra::RawReader& reader) {
  std::string line(zentra::raw_room(reader.bytes().size()), '\0');
  char* const end = zentra::put_raw_record(reader.number(), reader.bytes(), {}, line.data());
  expect(end <= line.data() + line.size() && end[-1] == '\n');
  const std::string bytes{reader.bytes().begin(), reader.bytes().end()};
  zentra::RawReader other;
  const zentra::PairShape shape = reader.header();
  std::string_view header;
  const std::string text = zentra::raw_header_of(shape);
  for (header = text; !header.empty(); header.remove_prefix(header.find('\n') + 1)) {
    expect(other.take(header.substr(0, header.find('\n'))) <= Line::kRecordsBegin);
  }
  line.resize(static_cast<std::size_t>(end - line.data()) - 1);
  expect(other.take(line) == Line::kRecord && other.number() == reader.number());
  expect(bytes == std::string(other.bytes().begin(), other.bytes().end()));
}

void read_raw(std::string_view text) {
  zentra::RawReader reader;
  std::int32_t last = 0;
  int written = 0;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const Line is = reader.take(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (is == Line::kOther) return expect(zentra::is_printable(reader.why()));
    if (is == Line::kBad) expect(zentra::is_printable(reader.why()));
    if (is != Line::kRecord) continue;
    expect(reader.number() > last);
    last = reader.number();
    if (++written == 1) write_again(reader);
  }
}

// A newline behind the line makes the parser read it, however usual it is.
void read_json(std::string_view line) {
  const std::string other = std::string(line) + '\n';
  zentra::JsonMembers members;
  zentra::JsonMembers parsed;
  members.begin(line);
  parsed.begin(other);
  std::size_t count = 0;
  while (members.next()) {
    expect(++count <= line.size() && members.value().size() <= line.size());
    expect(parsed.next() && members.name() == parsed.name() && members.kind() == parsed.kind() &&
           members.value() == parsed.value());
  }
  expect(!members.next() && !parsed.next());
  expect(members.why().empty() == parsed.why().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text{reinterpret_cast<const char*>(data), size};
  if (size > 0 && data[0] == '{') {
    read_json(text);
  } else {
    read_raw(text);
  }
  return 0;
}
