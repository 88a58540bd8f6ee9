#include "zentra/files/textfile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "common/holders.h"
#include "common/io.h"

namespace zentra {

std::optional<std::string> contents_of(const std::string& path, std::int64_t most) {
  const common::FileHold file{common::open_file(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY)};
  struct stat status {};
  if (!file || common::system_calls().fstat(file.get(), &status) != 0) return {};
  if (!S_ISREG(status.st_mode) || status.st_size > most) {
    errno = S_ISREG(status.st_mode) ? EFBIG : EINVAL;
    return {};
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  const ssize_t got =
      common::read_at(file.get(), {reinterpret_cast<common::Byte*>(text.data()), text.size()}, 0);
  if (got < 0) return {};
  text.resize(static_cast<std::size_t>(got));
  return text;
}

}  // namespace zentra
