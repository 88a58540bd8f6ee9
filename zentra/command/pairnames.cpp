#include "zentra/command/pairnames.h"

#include <sys/stat.h>

#include <cstdio>
#include <optional>
#include <set>
#include <utility>

#include "checker/driver.h"
#include "isam/files/files.h"

namespace zentra {
namespace {

using FileId = std::pair<dev_t, ino_t>;

std::optional<FileId> id_of(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {};
  return FileId{status.st_dev, status.st_ino};
}

}  // namespace

bool next_name(std::string& name) {
  constexpr std::size_t kMost = 65536;  // far more than a file's name may have
  name.clear();
  int c = 0;
  while ((c = std::getc(stdin)) != EOF && (c != '\0' || name.empty())) {
    if (c != '\0' && name.size() < kMost) name.push_back(static_cast<char>(c));
  }
  const bool has_name = !name.empty();
  checker::cut_suffix(name);  // of .idx nothing is left
  return has_name;
}

bool names_are_whole() { return std::ferror(stdin) == 0; }

std::vector<std::string> pairs_named(const std::vector<std::string>& names) {
  std::vector<std::string> pairs;
  std::set<std::pair<FileId, FileId>> files;
  std::set<std::string> incomplete;
  for (std::string name : names) {
    checker::cut_suffix(name);
    const auto index = id_of(isam::mkidxname(name));
    const auto data = id_of(isam::mkdatname(name));
    const bool is_new =
        index && data ? files.emplace(*index, *data).second : incomplete.insert(name).second;
    if (is_new) pairs.push_back(std::move(name));
  }
  return pairs;
}

}  // namespace zentra
