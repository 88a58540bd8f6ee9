#include "common/filecopy.h"

#include <linux/limits.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/io.h"

namespace common {
namespace {

constexpr std::size_t kPiece = std::size_t{1} << 20;
constexpr mode_t kPermissionBits = 07777;

int copy_through_process(int from, int to, std::int64_t at, std::int64_t end) {
  std::vector<Byte> piece(kPiece);
  while (at < end) {
    const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(end - at, kPiece));
    const ssize_t got = read_at(from, Bytes{piece}.first(wanted), at);
    if (got <= 0) return got == 0 ? 0 : -1;
    if (write_at(to, ConstBytes{piece}.first(static_cast<std::size_t>(got)), at) != 0) return -1;
    at += got;
  }
  return 0;
}

// Whether an error says that the system does not copy between these files: the process may.
bool tells_of_no_such_call(int error) {
  return error == ENOSYS || error == EOPNOTSUPP || error == EXDEV || error == EINVAL ||
         error == EPERM;
}

int copy_bytes(int from, int to, std::int64_t at, std::int64_t end) {
  while (at < end) {
    const ssize_t got = system_calls().copy_range(from, to, at, static_cast<std::size_t>(end - at));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && !tells_of_no_such_call(errno)) return -1;
    // Some file systems give nothing this way and no error.
    if (got <= 0) return copy_through_process(from, to, at, end);
    at += got;
  }
  return 0;
}

// Moves `at` to the next data of the file, `end` to the hole behind: false when only holes follow.
// Where the system cannot tell, all is data.
bool next_data(int fd, std::int64_t size, std::int64_t& at, std::int64_t& end) {
  const off_t data = ::lseek(fd, at, SEEK_DATA);
  if (data < 0 && errno == ENXIO) return false;
  if (data >= 0) at = data;
  const off_t hole = data < 0 ? -1 : ::lseek(fd, at, SEEK_HOLE);
  end = hole < 0 ? size : std::min<std::int64_t>(hole, size);
  return at < end;
}

// None also when they cannot be had.
std::vector<std::string> attribute_names(int fd) {
  std::vector<char> list(XATTR_LIST_MAX);
  const ssize_t size = ::flistxattr(fd, list.data(), list.size());
  std::vector<std::string> names;
  for (std::string_view rest{list.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
       !rest.empty();) {
    names.emplace_back(rest.substr(0, rest.find('\0')));
    rest.remove_prefix(std::min(names.back().size() + 1, rest.size()));
  }
  return names;
}

// The value of an attribute; none, with errno, when it cannot be had.
std::optional<std::vector<char>> attribute(int fd, const std::string& name) {
  std::vector<char> value(XATTR_SIZE_MAX);
  const ssize_t size = ::fgetxattr(fd, name.c_str(), value.data(), value.size());
  if (size < 0) return std::nullopt;
  value.resize(static_cast<std::size_t>(size));
  return value;
}

int copy_extended_attributes(int from, int to) {
  const std::vector<std::string> names = attribute_names(from);
  for (const std::string& name : names) {
    const std::optional<std::vector<char>> value = attribute(from, name);
    if (!value) return -1;
    if (value == attribute(to, name)) continue;
    if (system_calls().fsetxattr(to, name.c_str(), value->data(), value->size(), 0) != 0) return -1;
  }
  // What the folder gives to every new file, such as an access list, goes. The attributes of the
  // system's security modules are not ours to remove.
  for (const std::string& name : attribute_names(to)) {
    const bool extra = std::ranges::find(names, name) == names.end();
    if (extra && !name.starts_with("security.") && ::fremovexattr(to, name.c_str()) != 0) return -1;
  }
  return 0;
}

}  // namespace

int copy_contents(int from, int to) {
  if (system_calls().clone(from, to) == 0) return 0;
  std::int64_t size = 0;
  if (find_size(from, size) != 0 || cut_file(to, size) != 0) return -1;
  std::int64_t end = 0;
  for (std::int64_t at = 0; at < size && next_data(from, size, at, end); at = end) {
    if (copy_bytes(from, to, at, end) != 0) return -1;
  }
  return 0;
}

int copy_differences(int from, int to, std::int64_t at, std::int64_t end) {
  std::vector<Byte> piece(kPiece);
  std::vector<Byte> old(kPiece);
  while (at < end) {
    const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(end - at, kPiece));
    const ssize_t got = read_at(from, Bytes{piece}.first(wanted), at);
    const ssize_t had = got < 0 ? -1 : read_at(to, Bytes{old}.first(wanted), at);
    if (had < 0) return -1;
    if (got == 0) return 0;
    const auto count = static_cast<std::size_t>(got);
    if ((had != got || std::memcmp(piece.data(), old.data(), count) != 0) &&
        write_at(to, ConstBytes{piece}.first(count), at) != 0) {
      return -1;
    }
    at += got;
  }
  return 0;
}

int copy_attributes(int from, int to) {
  struct stat wanted {};
  struct stat given {};
  if (system_calls().fstat(from, &wanted) != 0 || system_calls().fstat(to, &given) != 0) return -1;
  if ((wanted.st_uid != given.st_uid || wanted.st_gid != given.st_gid) &&
      ::fchown(to, wanted.st_uid, wanted.st_gid) != 0) {
    return -1;
  }
  if (copy_extended_attributes(from, to) != 0) return -1;
  // Last: a new owner clears some of these bits, an access list sets some.
  return ::fchmod(to, wanted.st_mode & kPermissionBits);
}

int checksum_of(int fd, std::uint64_t& sum, std::int64_t end) {
  constexpr std::uint64_t kBasis = 0xCBF29CE484222325;
  constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;
  constexpr int kRotation = 27;
  std::vector<Byte> piece(kPiece);
  sum = kBasis;
  for (std::int64_t at = 0;; at += static_cast<std::int64_t>(kPiece)) {
    const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(kPiece, end - at));
    const ssize_t got = read_at(fd, Bytes{piece}.first(wanted), at);
    if (got < 0) return -1;
    std::fill(piece.begin() + got, piece.end(), Byte{0});
    for (std::size_t i = 0; i < static_cast<std::size_t>(got); i += sizeof sum) {
      std::uint64_t word = 0;
      std::memcpy(&word, &piece[i], sizeof word);
      sum = std::rotl((sum ^ __builtin_bswap64(word)) * kFactor, kRotation);
    }
    if (got < static_cast<ssize_t>(kPiece)) return 0;
  }
}

}  // namespace common
