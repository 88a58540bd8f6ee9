// islanginfo: which locale orders a pair; the application's collating tables.
#include <algorithm>
#include <array>

#include "isam.h"
#include "isam/base/current.h"
#include "isam/files/files.h"
#include "isam/keys/collating.h"

namespace isam {
namespace {

// Runs `look` on a pair that is opened only for that; -1 when it cannot be opened.
template <typename Look>
int look_at(const char* name, Look look) {
  const int isfd = isopen(name, ISINPUT + ISMANULOCK + ISANYLENGTH);
  if (isfd < 0) return -1;
  const int result = look(open_of(isfd)->file->cached.dictionary);
  isclose(isfd);
  return result;
}

}  // namespace
}  // namespace isam

using namespace isam;

extern "C" int isnlsversion(const char* name) {
  return look_at(name, [](const Dictionary& dictionary) { return dictionary.d_collate() ? 1 : 0; });
}

extern "C" int isulxversion(const char* name) { return isnlsversion(name); }

extern "C" const char* islanginfo(const char* name) {
  static std::array<char, kCollationNameSize + 1> text;
  text.fill(0);
  const int has_name = look_at(name, [](const Dictionary& dictionary) {
    std::copy_n(dictionary.d_collname(), kCollationNameSize, text.begin());
    return dictionary.d_collate() ? 1 : 0;
  });
  return has_name == 1 ? text.data() : nullptr;
}

extern "C" int iscollate(int type, const unsigned char* table) {
  return clregister(type, table) ? 0 : -1;
}
