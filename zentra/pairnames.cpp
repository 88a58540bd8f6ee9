#include "zentra/pairnames.h"

#include <sys/stat.h>

#include <set>
#include <utility>

#include "checker/driver.h"
#include "isam/files/files.h"

namespace zentra {

std::vector<std::string> pairs_named(const std::vector<std::string>& names) {
  std::vector<std::string> pairs;
  std::set<std::pair<dev_t, ino_t>> files;
  std::set<std::string> without_file;
  for (std::string name : names) {
    checker::cut_suffix(name);
    struct stat status {};
    const bool is_there = ::stat(isam::mkidxname(name).c_str(), &status) == 0;
    const bool is_new = is_there ? files.emplace(status.st_dev, status.st_ino).second
                                 : without_file.insert(name).second;
    if (is_new) pairs.push_back(std::move(name));
  }
  return pairs;
}

}  // namespace zentra
