#include "isam/calls/filelocale.h"

#include <cstring>
#include <string_view>

#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/pool/buffers.h"
#include "locale/collation.h"

namespace isam {

int check_locale() {
  if (!dictp->d_collate()) return 0;
  if (locale::chkulxinit() != 0) return failed(kLocaleInvalid);
  std::string_view stored{dictp->d_collname(), ::strnlen(dictp->d_collname(), kCollationNameSize)};
  while (stored.ends_with(' ')) stored.remove_suffix(1);
  return stored == locale::file_system_name() ? 0 : failed(kBadCollation);
}

int name_collation() {
  if (locale::chkulxinit() != 0) return failed(kLocaleInvalid);
  dictp->set_d_collate(true);
  dictp->set_d_collname(locale::file_system_name());
  dictmodify();
  return 0;
}

}  // namespace isam
