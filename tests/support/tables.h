// tables: test cases as rows of a text file, their columns between bars. Empty lines and lines that
// begin with # are for the reader.
#pragma once

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace testing_support {

inline std::vector<std::vector<std::string>> read_table(const std::string& path) {
  std::ifstream file{path};
  if (!file) throw std::runtime_error("cannot read " + path);
  std::vector<std::vector<std::string>> rows;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string>& row = rows.emplace_back();
    for (std::size_t at = 0, bar = 0; bar != line.npos; at = bar + 1) {
      bar = line.find('|', at);
      const std::string cell = line.substr(at, bar - at);
      const std::size_t first = cell.find_first_not_of(' ');
      row.push_back(
          first == cell.npos ? "" : cell.substr(first, cell.find_last_not_of(' ') + 1 - first));
    }
  }
  return rows;
}

}  // namespace testing_support
