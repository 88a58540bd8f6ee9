#include "common/fatal.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace common {
namespace {

void put(std::string_view text) {
  if (::write(STDERR_FILENO, text.data(), text.size()) < 0) return;  // nowhere left to report to
}

}  // namespace

void error(const char* message) {
  put("\r\nFatal system error: ");
  put(message);
  put("\r\n");
  std::abort();
}

}  // namespace common
