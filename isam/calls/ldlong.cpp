// ldlong: numbers and texts in key fields, for applications.
#include <cstring>
#include <string_view>

#include "common/bytes.h"
#include "isam.h"

namespace {

using common::Byte;

const Byte* bytes(const char* at) { return reinterpret_cast<const Byte*>(at); }
Byte* bytes(char* at) { return reinterpret_cast<Byte*>(at); }

template <typename T>
void store(T value, char* at) {
  std::memcpy(at, &value, sizeof value);
}

template <typename T>
T load_nullable(T (*load)(const Byte*, bool*), const char* at, int* isnull) {
  bool null = false;
  const T value = load(bytes(at), &null);
  *isnull = null ? 1 : 0;
  return value;
}

template <typename T>
void store_nullable(T value, char* at, int isnull) {
  if (isnull != 0) {
    std::memcpy(at, common::fltnull, sizeof value);
  } else {
    store(value, at);
  }
}

}  // namespace

extern "C" {

int16_t ldint(const char* at) { return common::ldshort(bytes(at)); }
void stint(int value, char* at) { common::stword(static_cast<std::uint32_t>(value), bytes(at)); }
int32_t ldlong(const char* at) { return common::ldlong(bytes(at)); }
void stlong(int32_t value, char* at) { common::stlong(value, bytes(at)); }
double lddbl(const char* at) { return common::lddbl(bytes(at)); }
void stdbl(char* at, double value) { store(value, at); }
float ldfloat(const char* at) { return common::ldfloat(bytes(at)); }
void stfloat(char* at, float value) { store(value, at); }

double lddblnull(const char* at, int* isnull) {
  return load_nullable(common::lddblnull, at, isnull);
}
void stdblnull(char* at, int isnull, double value) { store_nullable(value, at, isnull); }
float ldfltnull(const char* at, int* isnull) {
  return load_nullable(common::ldfltnull, at, isnull);
}
void stfltnull(char* at, int isnull, float value) { store_nullable(value, at, isnull); }

void ldchar(const char* field, int length, char* text) {
  const std::string_view all{field, static_cast<std::size_t>(length < 0 ? 0 : length)};
  const std::size_t end = all.find_last_not_of(' ') + 1;
  std::memcpy(text, field, end);
  text[end] = 0;
}

void stchar(const char* text, char* field, int length) {
  const std::size_t room = static_cast<std::size_t>(length < 0 ? 0 : length);
  const std::size_t used = text == nullptr ? 0 : ::strnlen(text, room);
  if (used > 0) std::memcpy(field, text, used);
  std::memset(field + used, ' ', room - used);
}

}  // extern "C"
