#include "isam/calls/traced.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <span>

#include "isam/base/errors.h"
#include "isam/files/files.h"

namespace isam {
namespace {

constexpr std::size_t kMostNameBytes = 4096;
constexpr std::size_t kMostText = 128;  // more than any call and its result take

ConstBytes bytes_of(const void* buffer, std::size_t length) {
  if (buffer == nullptr) return {};
  return {static_cast<const Byte*>(buffer), length};
}

// A record of a file, as long as `length` if the file may have such a record; else the least.
ConstBytes record_of(const OpenPair& file, const void* record, std::int32_t length) {
  const bool known =
      file.geometry.varlen && length >= file.geometry.reclen && length <= file.geometry.maxreclen;
  return bytes_of(record, static_cast<std::size_t>(known ? length : file.geometry.reclen));
}

ConstBytes record_of(const Exchange& exchange, std::int32_t length) {
  const Open* open = open_of(exchange.number);
  return open == nullptr ? ConstBytes{} : record_of(*open->file, exchange.buffer, length);
}

template <typename... Values>
std::size_t put(std::span<char> to, const char* format, Values... values) {
  return static_cast<std::size_t>(std::snprintf(to.data(), to.size(), format, values...));
}

bool has_many(const Exchange& exchange) { return exchange.carries >= Carries::kRecords; }

// Each of the first `count` records of a set in an entry of its own; none of a set that the call
// refuses.
void write_many(const Exchange& exchange, trace::Direction direction, int count) {
  const auto* const set = static_cast<const recordset*>(exchange.buffer);
  const Open* const open = open_of(exchange.number);
  if (set == nullptr || set->records == nullptr || open == nullptr) return;
  const auto room = static_cast<std::size_t>(open->file->geometry.maxreclen);
  if (room == 0 || count < 0 || static_cast<std::size_t>(count) > set->size / room) return;
  const bool have_lengths =
      set->lengths != nullptr &&
      (direction == trace::Direction::kToApplication || exchange.carries == Carries::kRecords);
  for (int i = 0; i < count; ++i) {
    std::array<char, kMostText> text;
    put(text, "%s %d, record %d of %d", exchange.call, exchange.number, i + 1, count);
    const char* const record = set->records + static_cast<std::size_t>(i) * room;
    trace::write(direction, text.data(),
                 record_of(*open->file, record, have_lengths ? set->lengths[i] : 0));
  }
}

// What the application hands over with the call itself, not record by record.
ConstBytes sent(const Exchange& exchange) {
  switch (exchange.carries) {
    case Carries::kName:
      if (exchange.buffer == nullptr) return {};
      return bytes_of(exchange.buffer,
                      ::strnlen(static_cast<const char*>(exchange.buffer), kMostNameBytes));
    case Carries::kKey:
    case Carries::kKeyAndReceives:
      return record_of(exchange, 0);
    case Carries::kRecord:
      return record_of(exchange, isreclen);
    case Carries::kDescription:
      return bytes_of(exchange.buffer, sizeof(keydescr));
    case Carries::kNothing:
    case Carries::kReceives:
    case Carries::kReceivesInfo:
    case Carries::kRecords:
    case Carries::kReceivesMany:
    case Carries::kKeysAndReceivesMany:
      break;
  }
  return {};
}

// ... and what it gets back that way.
ConstBytes received(const Exchange& exchange, int result) {
  if (result < 0) return {};
  switch (exchange.carries) {
    case Carries::kReceives:
    case Carries::kKeyAndReceives:
      return record_of(exchange, isreclen);
    case Carries::kDescription:
      return bytes_of(exchange.buffer, sizeof(keydescr));
    case Carries::kReceivesInfo:
      return bytes_of(exchange.buffer, sizeof(dictinfo));
    default:
      return {};
  }
}

// The call and its number; the length of that.
std::size_t put_call(const Exchange& exchange, std::span<char> to) {
  if (exchange.number == kNoNumber) return put(to, "%s", exchange.call);
  return put(to, "%s %d", exchange.call, exchange.number);
}

}  // namespace

void trace_entry(const Exchange& exchange) {
  std::array<char, kMostText> text;
  put_call(exchange, text);
  trace::write(trace::Direction::kToLibrary, text.data(), sent(exchange));
  if (!has_many(exchange) || exchange.carries == Carries::kReceivesMany) return;
  const auto* const set = static_cast<const recordset*>(exchange.buffer);
  if (set != nullptr) write_many(exchange, trace::Direction::kToLibrary, set->count);
}

void trace_exit(const Exchange& exchange, int result) {
  std::array<char, kMostText> text;
  std::size_t length = put_call(exchange, text);
  length += put(std::span{text}.subspan(length), " = %d", result);
  if (result < 0 || (has_many(exchange) && iserrno != 0)) {
    put(std::span{text}.subspan(length), ", error %d, status %c%c%c%c", iserrno, isstat1, isstat2,
        isstat3, isstat4);
  }
  trace::write(trace::Direction::kToApplication, text.data(), received(exchange, result));
  if (!has_many(exchange) || exchange.carries == Carries::kRecords) return;
  write_many(exchange, trace::Direction::kToApplication, result);
}

}  // namespace isam
