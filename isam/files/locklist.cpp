#include "isam/files/locklist.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <istream>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "isam/files/lockspace.h"

namespace isam {
namespace {

struct Line {
  ListedLock lock;
  std::string file;  // device and inode, as the list names them
};

// Such as "1: POSIX  ADVISORY  WRITE 4711 08:01:1234 2147483647 2147483647". What is waited for has
// an arrow behind its number, and locks of other kinds have another word.
std::optional<Line> parse(const std::string& text) {
  std::array<char, 64> file{};
  std::array<char, 32> last{};
  long long first = 0;
  int process = 0;
  const int fields = std::sscanf(text.c_str(), "%*s POSIX %*s %*s %d %63s %lld %31s", &process,
                                 file.data(), &first, last.data());
  if (fields != 4) return {};
  const bool is_open = std::string_view(last.data()) == "EOF";
  return Line{{.process = std::max<pid_t>(process, 0),
               .first = first,
               .last = is_open ? std::numeric_limits<off_t>::max()
                               : std::strtoll(last.data(), nullptr, 10)},
              file.data()};
}

}  // namespace

std::vector<ListedLock> locks_of_others(std::istream& list, pid_t self) {
  std::vector<Line> lines;
  std::string own;
  for (std::string text; std::getline(list, text);) {
    auto line = parse(text);
    if (!line) continue;
    if (line->lock.process != self) {
      lines.push_back(std::move(*line));
    } else if (line->lock.first == lockspace::kOpenLockStart ||
               line->lock.first == lockspace::kSemaphoreStart) {
      own = line->file;
    }
  }
  std::vector<ListedLock> locks;
  for (const Line& line : lines) {
    if (line.file == own) locks.push_back(line.lock);
  }
  return locks;
}

}  // namespace isam
