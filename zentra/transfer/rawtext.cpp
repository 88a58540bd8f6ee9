#include "zentra/transfer/rawtext.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <optional>
#include <utility>

#include "common/number.h"
#include "isam/base/errors.h"
#include "isam/base/format.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"
#include "layout/chunk.h"
#include "zentra/keys/keysfile.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::Byte;

constexpr char kDigits[] = "0123456789abcdef";
constexpr Byte kNoDigit = 0xFF;

constexpr std::array<bool, 256> plain_bytes() {
  std::array<bool, 256> plain{};
  for (std::size_t byte = ' '; byte <= '~'; ++byte) plain[byte] = byte != '\\';
  return plain;
}
constexpr std::array<bool, 256> kIsPlain = plain_bytes();

constexpr std::array<Byte, 256> digit_values() {
  std::array<Byte, 256> values{};
  values.fill(kNoDigit);
  for (std::size_t i = 0; i < 10; ++i) values['0' + i] = static_cast<Byte>(i);
  for (std::size_t i = 0; i < 6; ++i) {
    values['a' + i] = values['A' + i] = static_cast<Byte>(10 + i);
  }
  return values;
}
constexpr std::array<Byte, 256> kValueOfDigit = digit_values();

char* put_escaped(Byte byte, char* to) {
  to[0] = '\\';
  to[1] = kDigits[byte >> 4];
  to[2] = kDigits[byte & 15];
  return to + 3;
}

// The word in front of the first blank, which is taken off with it.
std::string_view take_word(std::string_view& text) {
  const std::size_t end = std::min(text.find(' '), text.size());
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return word;
}

}  // namespace

std::string raw_header_of(const PairShape& header) {
  std::string text = fmt::format("{}{}\nlength {}", kRawBegin, kRawVersion, header.least);
  if (header.is_variable()) text += fmt::format(" {}", header.greatest);
  text += fmt::format("\nnode {}\nduplicates {}\n", header.node_size, header.duplicate_width);
  if (!header.collation.empty() && std::ranges::any_of(header.keys, isam::kynchar)) {
    text += fmt::format("locale {}\n", shown(header.collation));
  }
  text += fmt::format("unique {}\n", header.unique);
  for (const keydescr& k : header.keys) text += fmt::format("key {}\n", line_of(k));
  return text + "records\n";
}

namespace {

// Puts a chunk at once, and of what does not stand there as it is one byte after the other. What is
// put too much lies within raw_room().
char* put_bytes(isam::ConstBytes bytes, char* at) {
  using layout::Chunk;
  const Byte* from = bytes.data();
  const Byte* const end = from + bytes.size();
  while (end - from >= std::ptrdiff_t{sizeof(Chunk)}) {
    const Chunk chunk = layout::chunk_at(from);
    const Chunk marked = layout::is_unprintable(chunk) | layout::is_byte(chunk, '\\');
    layout::put_chunk(chunk, at);
    const int plain = layout::has_any(marked) ? layout::first_of(marked) : int{sizeof(Chunk)};
    from += plain;
    at += plain;
    for (; from != end && !kIsPlain[*from]; ++from) at = put_escaped(*from, at);
  }
  for (; from != end; ++from) {
    if (kIsPlain[*from]) {
      *at++ = static_cast<char>(*from);
    } else {
      at = put_escaped(*from, at);
    }
  }
  return at;
}

}  // namespace

char* put_raw_record(std::int32_t number, isam::ConstBytes bytes, isam::ConstBytes tail, char* to) {
  char* at = std::to_chars(to, to + raw_room(0), number).ptr;
  *at++ = ':';
  at = put_bytes(tail, put_bytes(bytes, at));
  // Blanks at the end of a line get lost on some ways.
  if (at[-1] == ' ') at = put_escaped(' ', at - 1);
  *at++ = '\n';
  return at;
}

void put_raw_order(int index, std::span<const std::int32_t> records, std::string& to) {
  to += fmt::format("order {}", index);
  for (const std::int32_t record : records) to += fmt::format(" {}", record);
  to += '\n';
}

void put_raw_end(std::int64_t records, std::string& to) { to += fmt::format("end {}\n", records); }

RawReader::Line RawReader::bad(std::string why) {
  why_ = std::move(why);
  return Line::kBad;
}

RawReader::Line RawReader::other(std::string why) {
  why_ = std::move(why);
  return Line::kOther;
}

RawReader::Line RawReader::take(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  switch (part_) {
    case Part::kFirstLine:
      return take_first(line);
    case Part::kHeader:
      return take_header(line);
    case Part::kBehindEnd:
      return bad("it stands behind the end");
    default:
      break;
  }
  if (line.starts_with("order ")) return take_order(line);
  if (line.starts_with("end ")) return take_end(line);
  return part_ == Part::kRecords ? take_record(line) : bad("a record behind the order of others");
}

RawReader::Line RawReader::take_first(std::string_view line) {
  if (!line.starts_with(kRawBegin)) return other("no raw text of a pair");
  line.remove_prefix(kRawBegin.size());
  if (line != std::to_string(kRawVersion)) {
    return other(fmt::format("raw text of another version: {}", shown(line.substr(0, 20))));
  }
  part_ = Part::kHeader;
  return Line::kHeader;
}

// What is not right of the header as a whole; empty for nothing.
std::string RawReader::header_fault() const {
  const PairShape& h = header_;
  if (h.least == 0) return "the line with the length of records is missing";
  if (h.keys.empty()) return "the descriptions of the indexes are missing";
  if (h.keys.size() > isam::kMostDescriptions) return "too many indexes";
  for (keydescr k : h.keys) {
    if (k.nparts > 0 && isam::kylegal(k, h.least) != 0) {
      return "a part of a key lies outside the record";
    }
  }
  return "";
}

RawReader::Line RawReader::take_header(std::string_view line) {
  PairShape& h = header_;
  const std::string_view name = take_word(line);
  const auto number = [&](std::int64_t least, std::int64_t most) -> std::int32_t {
    const auto value = common::number_within(take_word(line), least, most);
    return value ? static_cast<std::int32_t>(*value) : 0;
  };
  bool right = true;
  if (name == "length") {
    h.least = number(1, isam::kMaxRecordLength);
    h.greatest = line.empty() ? h.least : number(h.least + 1, isam::kMaxRecordLength);
    right = h.least > 0 && h.greatest > 0;
  } else if (name == "node") {
    h.node_size = number(isam::kMinStoredNodeSize + 1, isam::kMaxStoredNodeSize);
    right = h.node_size > 0;
  } else if (name == "duplicates") {
    h.duplicate_width = number(2, 4);
    right = h.duplicate_width == 2 || h.duplicate_width == 4;
  } else if (name == "locale") {
    h.collation = take_word(line);
    right = !h.collation.empty() && h.collation.size() <= isam::kCollationNameSize &&
            shown(h.collation) == h.collation;
  } else if (name == "unique") {
    h.unique = number(1, INT32_MAX);
    right = h.unique > 0;
  } else if (name == "key") {
    KeyOfLine read = key_of_line(line);
    if (!read.why.empty()) return other(read.why);
    h.keys.push_back(read.key);
    line = {};
    right = h.keys.size() <= isam::kMostDescriptions;
  } else if (name == "records" && line.empty()) {
    const std::string fault = header_fault();
    isam::clear_errors();
    if (!fault.empty()) return other(fault);
    bytes_.resize(static_cast<std::size_t>(h.greatest));
    part_ = Part::kRecords;
    return Line::kRecordsBegin;
  } else {
    return other(fmt::format("no line of the header: {}", shown(name.substr(0, 20))));
  }
  if (!right || !line.empty()) return other(fmt::format("the line \"{}\" is wrong", name));
  return Line::kHeader;
}

// Into bytes_: false where there are too many, or a byte that has no place there.
bool RawReader::decode(std::string_view text) {
  const char* from = text.data();
  const char* const end = from + text.size();
  Byte* at = bytes_.data();
  const Byte* const behind = at + bytes_.size();
  while (from != end) {
    const char* const run = from;
    while (from != end && kIsPlain[static_cast<Byte>(*from)]) ++from;
    if (from - run > behind - at) return false;
    std::memcpy(at, run, static_cast<std::size_t>(from - run));
    at += from - run;
    if (from == end) break;
    const bool is_whole = *from == '\\' && end - from >= 3 && at != behind;
    const Byte high = is_whole ? kValueOfDigit[static_cast<Byte>(from[1])] : kNoDigit;
    const Byte low = is_whole ? kValueOfDigit[static_cast<Byte>(from[2])] : kNoDigit;
    if (high == kNoDigit || low == kNoDigit) return false;
    *at++ = static_cast<Byte>(high << 4 | low);
    from += 3;
  }
  length_ = static_cast<std::size_t>(at - bytes_.data());
  return true;
}

RawReader::Line RawReader::take_record(std::string_view line) {
  const char* const end = line.data() + line.size();
  std::int32_t number = 0;
  const auto [behind, error] = std::from_chars(line.data(), end, number);
  if (error != std::errc{} || number < 1 || behind == end || *behind != ':') {
    return bad("no record's number");
  }
  if (number <= number_) return bad("its number does not follow that of the record before");
  if (!decode({behind + 1, static_cast<std::size_t>(end - behind - 1)})) {
    return bad("too long, or with a byte that is not as \\ and two digits");
  }
  if (length_ < static_cast<std::size_t>(header_.least)) {
    return bad(fmt::format("{} bytes, fewer than {}", length_, header_.least));
  }
  number_ = number;
  return Line::kRecord;
}

RawReader::Line RawReader::take_order(std::string_view line) {
  take_word(line);
  const auto indexes = static_cast<std::int64_t>(header_.keys.size());
  const auto index = common::number_within(take_word(line), 1, indexes);
  if (!index) return bad("no number of an index");
  const keydescr& k = header_.keys[static_cast<std::size_t>(*index) - 1];
  if ((k.flags & KF_DUPS) == 0 || k.nparts == 0) return bad("an index without duplicates");
  order_.clear();
  while (!line.empty()) {
    const auto number = common::number_within(take_word(line), 1, INT32_MAX);
    if (!number) return bad("no record's number");
    order_.push_back(static_cast<std::int32_t>(*number));
  }
  index_ = static_cast<int>(*index);
  part_ = Part::kOrders;
  return Line::kOrder;
}

RawReader::Line RawReader::take_end(std::string_view line) {
  take_word(line);
  const auto count = common::number_within(line, 0, INT32_MAX);
  if (!count) return bad("no number of records");
  count_ = *count;
  part_ = Part::kBehindEnd;
  return Line::kEnd;
}

}  // namespace zentra
