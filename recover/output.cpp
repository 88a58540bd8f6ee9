#include "recover/output.h"

#include <cstdio>

namespace recover {

void print(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

void complain(std::string_view text) {
  std::fflush(stdout);
  std::fprintf(stderr, "isrecover: %.*s\n", static_cast<int>(text.size()), text.data());
}

bool finish_output() { return std::fflush(stdout) == 0 && std::ferror(stdout) == 0; }

}  // namespace recover
