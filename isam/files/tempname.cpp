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

// Advances the three characters from `first` on as a counter: each goes by its code up to 'z',
// then becomes 'a' while the one before it advances. False past the last combination. In the second
// template, which has only two "N", the third character is a digit of the process id: it counts
// like a letter from the digit's code on. That is as the system's names have always been.
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

// Fills in a template: 'a' for each "N", the last digits of the process id for the "X" at its end.
// `first_counted` becomes the place of the first "N", where inctfid() counts.
std::string ismktemp(std::string text, std::size_t& first_counted) {
  first_counted = text.find('N');
  for (char& character : text) {
    if (character == 'N') character = 'a';
  }
  pid_t id = ::getpid();
  for (std::size_t at = text.size(); at > 0 && text[at - 1] == 'X'; --at, id /= 10) {
    text[at - 1] = static_cast<char>('0' + id % 10);
  }
  return text;
}

// Finds a free name in the folder of the pair `name`: false when all are taken.
bool mktmpname(std::string_view name, const char* pattern, std::string& result) {
  const std::string folder{name.substr(0, name.rfind('/') + 1)};
  std::size_t first_counted = 0;
  std::string own_name = ismktemp(pattern, first_counted);
  while (taken(folder + own_name)) {
    if (!inctfid(own_name, first_counted)) return false;
  }
  result = folder + own_name;
  return true;
}

}  // namespace

bool ismkname(std::string_view name, TemporaryNames& names) {
  return mktmpname(name, "isNNNXXXXX", names.first) && mktmpname(name, "issNNXXXXX", names.second);
}

}  // namespace isam
