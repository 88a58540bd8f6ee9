// heldoutput: what is printed while somebody works, kept in a temporary file until it may come out.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <memory>

namespace zentra {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using HeldFile = std::unique_ptr<std::FILE, CloseFile>;

// A file without a name, or in memory where there is no room for one; null: none is to be had.
[[nodiscard]] HeldFile held_file();

// What a file has from `begin` to `end`.
struct HeldPart {
  off_t begin = 0;
  off_t end = 0;
};

// How many bytes it has.
[[nodiscard]] off_t size_of(std::FILE* file);

// Prints a part of a file: whether there was anything to print. A last line without its end is left
// out unless the part is known to be whole.
bool print_held(std::FILE* file, const HeldPart& part, bool is_whole);

// While it exists standard output goes into a file, and afterwards to where it went before: whoever
// reads it slowly keeps nobody from the pair.
class HeldOutput {
 public:
  HeldOutput();
  HeldOutput(const HeldOutput&) = delete;
  HeldOutput& operator=(const HeldOutput&) = delete;
  ~HeldOutput();

 private:
  HeldFile file_;
  int before_ = -1;
};

}  // namespace zentra
