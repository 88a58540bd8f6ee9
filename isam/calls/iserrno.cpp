// iserrno: the texts of codes and failures, and the library's version.
#include <cstring>
#include <string>
#include <string_view>

#include "isam.h"
#include "isam/base/errors.h"
#include "isam/calls/explain.h"
#include "isam/calls/version.h"

extern "C" const char* iserrtext(std::int32_t code) {
  const std::string_view text = isam::is_errlist(code);  // of a literal: a zero byte follows
  if (!text.empty()) return text.data();
  return code > 0 && code < 100 ? std::strerror(code) : "unknown error code";
}

extern "C" const char* isexplain() { return isam::explanation(); }

extern "C" const char* isversion() {
  static const std::string text = std::string("Zentra-ISAM ") + isam::kVersionNumber;
  return text.c_str();
}
