#include "recover/plainfile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "common/io.h"
#include "isam.h"
#include "recover/output.h"
#include "recover/text.h"

namespace recover {

PlainFile open_plain(const std::string& path) {
  PlainFile file;
  // A pipe nobody writes to must not make the open wait.
  file.fd = common::FileHold{common::open_file(path.c_str(), O_RDONLY | O_NONBLOCK)};
  struct stat status {};
  if (!file.fd || ::fstat(file.fd.get(), &status) != 0) {
    complain_errno("cannot open", path);
    return {};
  }
  if (!S_ISREG(status.st_mode)) {
    complain(quoted(path) + " is not a regular file");
    return {};
  }
  file.size = status.st_size;
  return file;
}

// iserrtext() has texts for the system's codes too.
void complain_errno(const std::string& what, const std::string& name) {
  const int reason = errno;  // putting the text together may change errno
  complain(what + " " + quoted(name) + ": " + iserrtext(reason));
}

}  // namespace recover
