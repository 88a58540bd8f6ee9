#include "isam/files/tempname.h"

#include <unistd.h>

#include "common/io.h"
#include "isam/files/files.h"

namespace isam {
namespace {

bool taken(const std::string& base) {
  return common::file_exists(base) || common::file_exists(mkidxname(base)) ||
         common::file_exists(mkdatname(base));
}

// Advances the three characters from `first` on: false past the last combination.
bool inctfid(std::string& name, std::size_t first) {
  for (std::size_t at = first + 3; at > first; --at) {
    char& character = name[at - 1];
    if (character < 'z') {
      ++character;
      return true;
    }
    character = 'a';
  }
  return false;
}

// Fills in a template: letters for "N", digits of the process id, from the right, for "X".
std::string ismktemp(std::string text, std::size_t& counted) {
  counted = text.find('N');
  for (char& character : text) {
    if (character == 'N') character = 'a';
  }
  pid_t id = ::getpid();
  for (std::size_t at = text.size(); at > 0 && text[at - 1] == 'X'; --at, id /= 10) {
    text[at - 1] = static_cast<char>('0' + id % 10);
  }
  return text;
}

bool mktmpname(std::string_view name, const char* pattern, std::string& result) {
  const std::string folder{name.substr(0, name.rfind('/') + 1)};
  std::size_t counted = 0;
  std::string last = ismktemp(pattern, counted);
  while (taken(folder + last)) {
    if (!inctfid(last, counted)) return false;
  }
  result = folder + last;
  return true;
}

}  // namespace

bool ismkname(std::string_view name, TemporaryNames& names) {
  return mktmpname(name, "isNNNXXXXX", names.first) && mktmpname(name, "issNNXXXXX", names.second);
}

}  // namespace isam
