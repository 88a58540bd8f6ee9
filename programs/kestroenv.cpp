// kestroenv: lists the variables that the library and kestro read, and where each value is from.
//
// The list is a settings file itself. Standard error gets the lines and files of settings that
// cannot be read; then the status is 1.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "environment/settings.h"

namespace {

using environment::Found;
using environment::SettingsFile;
using environment::Source;

// A value as a settings file has it, in quotes where it needs them. Bytes that no settings file can
// have, control characters other than tabs, are shown as question marks: the process environment
// may hold any.
std::string written(std::string_view value) {
  const bool plain = !value.empty() && value.find_first_of(" \t#\"'\\") == std::string_view::npos;
  std::string text = plain ? "" : "\"";
  for (const char c : value) {
    if (!plain && (c == '"' || c == '\\')) text += '\\';
    const auto byte = static_cast<unsigned char>(c);
    text += (byte < 0x20 && c != '\t') || byte == 0x7F ? '?' : c;
  }
  return plain ? text : text + '"';
}

// Where a value is from; empty for a variable without a value.
std::string place(const Found& found) {
  const auto line_of = [&](const SettingsFile& file) {
    return file.path + ":" + std::to_string(found.line);
  };
  switch (found.source) {
    case Source::kProcess:
      return "environment";
    case Source::kUserFile:
      return line_of(environment::settings().user_file());
    case Source::kSystemFile:
      return line_of(environment::settings().system_file());
    case Source::kFallback:
      return "default";
    case Source::kNone:
      break;
  }
  return {};
}

void list(const std::string& name) {
  const Found found = environment::settings().find(name);
  std::string remark = place(found);
  const environment::KnownVariable* const known = environment::known_variable(name);
  if (known == nullptr) remark += ", unknown name";
  if (found.ignored) remark += ", environment ignored";
  if (known != nullptr && found.source != Source::kNone) {
    const std::string fault = environment::fault_of(*known, found.value);
    if (!fault.empty()) remark += ", " + fault;
  }
  if (found.source == Source::kNone) {
    std::printf("# %s is not set%s\n", name.c_str(), remark.c_str());
  } else {
    std::printf("%-19s %s  # %s\n", name.c_str(), written(found.value).c_str(), remark.c_str());
  }
}

// The known names, then those that only the files have.
std::vector<std::string> all_names() {
  std::vector<std::string> names;
  for (const auto& known : environment::known_variables()) names.emplace_back(known.name);
  const environment::Settings& settings = environment::settings();
  for (const SettingsFile* file : {&settings.user_file(), &settings.system_file()}) {
    for (const auto& setting : file->settings) {
      if (std::ranges::find(names, setting.name) == names.end()) names.push_back(setting.name);
    }
  }
  return names;
}

bool report(const SettingsFile& file) {
  for (const auto& problem : file.problems) {
    const std::string line = problem.line == 0 ? "" : ":" + std::to_string(problem.line);
    std::fprintf(stderr, "%s%s: %s\n", file.path.c_str(), line.c_str(), problem.text.c_str());
  }
  return file.problems.empty();
}

}  // namespace

int main(int argc, char** argv) {
  const std::span<char*> words(argv, static_cast<std::size_t>(argc));
  if (words.size() > 1 && words[1][0] == '-') {
    std::fputs("usage: kestroenv [NAME ...]\n", stderr);
    return EXIT_FAILURE;
  }
  std::vector<std::string> names;
  if (words.size() > 1) {
    names.assign(words.begin() + 1, words.end());
  } else {
    names = all_names();
  }
  for (const auto& name : names) list(name);
  const environment::Settings& settings = environment::settings();
  const bool sound = report(settings.user_file());
  return report(settings.system_file()) && sound ? EXIT_SUCCESS : EXIT_FAILURE;
}
