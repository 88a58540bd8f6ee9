#include "isam/version.h"

#include <string>

#include "isam.h"

const char* isversion() {
  static const std::string text = std::string("Zentra-ISAM ") + isam::kVersionNumber;
  return text.c_str();
}
