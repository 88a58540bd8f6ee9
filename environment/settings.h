// settings: the one place where the system looks up its variables.
//
//   const std::int64_t buffers = environment::number("ISAMBUFS", 4, 32766);
//
// A variable's value comes from the first of these that has one:
//   1. the process environment, unless `ENVIGNORE` lists the name. ENVIGNORE itself is taken
//      together from everywhere: what one source lists no other can lift.
//   2. the file ".marvolen" in the home directory
//   3. the file "etc/marvolen.rc" below `MARVOLENDIR`
//   4. the table of known variables
// A process that runs with more rights than its user has neither 1 nor 2.
//
// Keeps   the files are read once, when the first variable is looked up
// Gives   values as text or as checked numbers. A look-up costs time: keep what it gives.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "environment/settings_file.h"

namespace environment {

struct KnownVariable {
  const char* name;
  const char* fallback;  // null: not set
};

[[nodiscard]] std::span<const KnownVariable> known_variables();
[[nodiscard]] const KnownVariable* known_variable(std::string_view name);

enum class Source { kNone, kFallback, kSystemFile, kUserFile, kProcess };

struct Found {
  Source source = Source::kNone;
  std::string value = {};
  int line = 0;          // in its file
  bool ignored = false;  // ENVIGNORE hides a value of the process environment
};

class Settings {
 public:
  // Reads the files that the process environment of the moment leads to.
  Settings();

  [[nodiscard]] Found find(const std::string& name) const;

  // An absent file has an empty path.
  [[nodiscard]] const SettingsFile& user_file() const { return user_file_; }
  [[nodiscard]] const SettingsFile& system_file() const { return system_file_; }

 private:
  void ignore(std::string_view names);
  [[nodiscard]] bool is_ignored(std::string_view name) const;

  SettingsFile user_file_;
  SettingsFile system_file_;
  std::vector<std::string> ignored_;
};

// The process's settings, read at the first call.
[[nodiscard]] const Settings& settings();

// The value of a variable, none when it has none.
[[nodiscard]] std::optional<std::string> lookup(const char* name);

// A known variable's value when it is a decimal number in low..high, else its default.
[[nodiscard]] std::int64_t number(const char* name, std::int64_t low, std::int64_t high);

// The number that a known variable's value begins with, in base 8, 10 or 16 by its prefix.
[[nodiscard]] long leading_number(const char* name);

}  // namespace environment
