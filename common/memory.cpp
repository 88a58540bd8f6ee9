#include "common/memory.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string>
#include <string_view>

#include "common/io.h"

namespace common {
namespace {

std::string beginning_of(const char* path) {
  std::string text(4096, 0);
  const int fd = open_file(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  const ssize_t got = read_at(fd, {reinterpret_cast<Byte*>(text.data()), text.size()}, 0);
  close_file(fd);
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  return text;
}

// The number that the text begins with, after blanks; `none` where there is no number.
std::int64_t number_in(std::string_view text, std::int64_t none) {
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  std::int64_t number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  return read.ec == std::errc{} && number >= 0 ? number : none;
}

std::int64_t kilobytes_of(std::string_view text, std::string_view name) {
  constexpr std::int64_t kMost = INT64_MAX / 1024;
  const std::size_t at = text.find(name);
  if (at == std::string_view::npos) return 0;
  return std::min(number_in(text.substr(at + name.size()), 0), kMost) * 1024;
}

// Where the group of processes that this one is in has its limits: its name behind `kind` in the
// system's list of groups; empty without such a kind.
std::string own_group(const std::string& groups, std::string_view kind) {
  const std::size_t at = groups.find(kind);
  if (at == std::string::npos) return {};
  const std::size_t start = at + kind.size();
  return groups.substr(start, groups.find('\n', start) - start);
}

}  // namespace

Memory find_memory() {
  const std::string text = beginning_of("/proc/meminfo");
  Memory memory{kilobytes_of(text, "MemTotal:"), kilobytes_of(text, "MemAvailable:")};
  // The limits of the group seen as the root, as in a container, and of the one by its name.
  const std::string groups = beginning_of("/proc/self/cgroup");
  const std::string one = "/sys/fs/cgroup";
  const std::string other = "/sys/fs/cgroup/memory";  // of the first version
  for (const std::string& folder :
       {one, one + own_group(groups, "0::"), other, other + own_group(groups, ":memory:")}) {
    for (const char* const name : {"/memory.max", "/memory.limit_in_bytes"}) {
      const std::string limit = beginning_of((folder + name).c_str());
      memory.all = std::min(memory.all, number_in(limit, memory.all));
    }
  }
  return memory;
}

}  // namespace common
