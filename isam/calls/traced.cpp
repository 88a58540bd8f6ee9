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

ConstBytes bytes_of(const char* buffer, std::size_t length) {
  if (buffer == nullptr) return {};
  return {reinterpret_cast<const Byte*>(buffer), length};
}

// The record of an open, as long as `length` if the file may have such a record; else the least.
ConstBytes record_of(const Exchange& exchange, std::int32_t length) {
  const Open* open = open_of(exchange.number);
  if (open == nullptr) return {};
  const OpenPair& file = *open->file;
  const bool known =
      file.geometry.varlen && length >= file.geometry.reclen && length <= file.geometry.maxreclen;
  return bytes_of(exchange.buffer, static_cast<std::size_t>(known ? length : file.geometry.reclen));
}

ConstBytes sent(const Exchange& exchange) {
  switch (exchange.carries) {
    case Carries::kName:
      if (exchange.buffer == nullptr) return {};
      return bytes_of(exchange.buffer, ::strnlen(exchange.buffer, kMostNameBytes));
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
      break;
  }
  return {};
}

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

template <typename... Values>
std::size_t put(std::span<char> to, const char* format, Values... values) {
  return static_cast<std::size_t>(std::snprintf(to.data(), to.size(), format, values...));
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
}

void trace_exit(const Exchange& exchange, int result) {
  std::array<char, kMostText> text;
  std::size_t length = put_call(exchange, text);
  length += put(std::span{text}.subspan(length), " = %d", result);
  if (result < 0) {
    put(std::span{text}.subspan(length), ", error %d, status %c%c%c%c", iserrno, isstat1, isstat2,
        isstat3, isstat4);
  }
  trace::write(trace::Direction::kToApplication, text.data(), received(exchange, result));
}

}  // namespace isam
