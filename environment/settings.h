// settings: the one place where the system looks up its variables.
//
//   const std::int64_t buffers = environment::number("ISAMBUFS");
//
// A variable's value comes from the first of these that has one:
//   1. the process environment, unless `ENVIGNORE` lists the variable's name
//   2. the file ".marvolen" in the home directory
//   3. the file "etc/marvolen.rc" below `MARVOLENDIR`
//   4. the table of known variables
// The values of `ENVIGNORE` in 1, 2 and 3 count together: no variable that one of them lists comes
// from the process environment, so that no source lifts what another one forbids. A process that
// runs with more rights than its user looks at neither 1 nor 2, which the user could change.
//
// Keeps   the files are read once, when the first variable is looked up; the process environment
//         is looked at every time
// Gives   values as text or as numbers. A look-up costs time: keep what it gives.
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

inline constexpr std::int64_t kMostBuffers = 32766;  // ISAMBUFS

struct KnownVariable {
  // What counts of its value.
  enum class Kind {
    kText,
    kDecimal,  // a number from low to high; anything else counts as the default
    kLeading,  // the number that it begins with, 0 without one
    kChoice    // a number from low to high; anything else counts as no value
  };

  const char* name;
  const char* fallback;  // its default; null: without a source it has no value
  Kind kind = Kind::kText;
  std::int64_t low = 0;
  std::int64_t high = 0;
};

[[nodiscard]] std::span<const KnownVariable> known_variables();
// Null for a name that is not known.
[[nodiscard]] const KnownVariable* known_variable(std::string_view name);

// Where a value comes from; kNone: there is none.
enum class Source { kNone, kFallback, kSystemFile, kUserFile, kProcess };

struct Found {
  Source source = Source::kNone;
  std::string value = {};
  int line = 0;          // in the file that has the value; 0 for other sources
  bool ignored = false;  // the process environment has a value, but ENVIGNORE lists the name
};

class Settings {
 public:
  // Reads the file that `HOME` leads to, then the one that `MARVOLENDIR` leads to. What the second
  // lists in `ENVIGNORE` comes too late for `MARVOLENDIR` itself.
  Settings();

  [[nodiscard]] Found find(const std::string& name) const;

  // A file that does not exist has its path and no settings. The user's file has no path either
  // when `HOME` leads nowhere.
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

// The value of a variable, known or not; none when no source has one.
[[nodiscard]] std::optional<std::string> lookup(const char* name);

// A known variable's value (kDecimal) when it is a number within its range, else its default.
[[nodiscard]] std::int64_t number(const char* name);

// What is wrong with a value of a known variable, and what counts instead; empty when nothing is.
[[nodiscard]] std::string fault_of(const KnownVariable& variable, const std::string& value);

// The number that a variable's value begins with, in base 8, 10 or 16 by its prefix; 0 when it
// begins with none, or the variable has no value.
[[nodiscard]] long leading_number(const char* name);

}  // namespace environment
