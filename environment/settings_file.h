// settings_file: files that give names values, one on each line.
//
//   # comment
//   CLIENT_LOCALE  de_de.utf8      # a comment may follow a value
//   SQLIDEBUG      "my trace.txt"  # in quotes: blanks and #, \" for a quote, \\ for a backslash
//   EMPTY          ''              # in single quotes every character stands for itself
//
// Needs   nothing: a file may hold any bytes
// Gives   the settings of the lines that can be read, and file, line and reason for all others
// Never   waits or fails. A file of more than kMaxSettingsFile bytes has a problem and no settings
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace environment {

constexpr std::size_t kMaxSettingsFile = 65536;  // bytes
constexpr std::size_t kMaxSettingName = 64;      // letters, digits and underscores

struct Setting {
  std::string name;
  std::string value;
  int line;  // from 1
};

struct Problem {
  int line;  // from 1; 0 for the file as a whole
  std::string text;
};

struct SettingsFile {
  std::string path;
  std::vector<Setting> settings;
  std::vector<Problem> problems;

  // The last setting of a name, null when there is none.
  [[nodiscard]] const Setting* find(std::string_view name) const;
};

// Reads `text` as the contents of a file; `path` is only passed on.
[[nodiscard]] SettingsFile parse_settings(std::string path, std::string_view text);

// A file that does not exist has neither settings nor problems.
[[nodiscard]] SettingsFile read_settings(const std::string& path);

}  // namespace environment
