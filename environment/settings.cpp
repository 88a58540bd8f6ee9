#include "environment/settings.h"

#include <stdlib.h>

#include <algorithm>
#include <limits>

#include "common/number.h"

namespace environment {
namespace {

using Kind = KnownVariable::Kind;

constexpr KnownVariable kKnown[] = {
    {"CLIENT_LOCALE", "c"},
    {"ENVIGNORE", nullptr},
    {"ISAMBUFS", "16", Kind::kDecimal, 4, kMostBuffers},
    {"ISAMSORTMEM", "64", Kind::kDecimal, 1, 65536},
    {"ISAM_DEADLOCK_COUNT", "0", Kind::kLeading},
    {"ISAM_DEADLOCK_SLEEP", "0", Kind::kLeading},
    {"ISAM_LOG_SYNC", "0", Kind::kLeading},
    {"ISCLOSE_SHARE_LOCK", "1", Kind::kLeading},
    {"KESTRO_KEEP", nullptr, Kind::kChoice, 0, 1},
    {"KESTRO_REPORT", nullptr},
    {"MARVOLENDIR", "/usr/marvolen"},
    {"RESETLOCK", nullptr},
    {"SQLIDEBUG", nullptr},
};

// Null also for all names in a process that runs with more rights than its user.
const char* of_process(const char* name) { return ::secure_getenv(name); }

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const std::size_t from = text.find_first_not_of(kBlanks);
  if (from == std::string_view::npos) return {};
  return text.substr(from, text.find_last_not_of(kBlanks) + 1 - from);
}

SettingsFile home_file() {
  const char* home = of_process("HOME");
  if (home == nullptr || *home == '\0') return {};
  return read_settings(std::string{home} + "/.marvolen");
}

Found in_file(const SettingsFile& file, Source source, std::string_view name) {
  const Setting* setting = file.find(name);
  if (setting == nullptr) return {};
  return {.source = source, .value = setting->value, .line = setting->line};
}

std::optional<std::string> fallback(const char* name) {
  const KnownVariable* known = known_variable(name);
  if (known == nullptr || known->fallback == nullptr) return std::nullopt;
  return known->fallback;
}

}  // namespace

std::span<const KnownVariable> known_variables() { return kKnown; }

const KnownVariable* known_variable(std::string_view name) {
  const auto* known = std::ranges::find_if(
      kKnown, [&](const KnownVariable& variable) { return variable.name == name; });
  return known == std::end(kKnown) ? nullptr : known;
}

// Which names are to be ignored must be known before find() is asked for MARVOLENDIR.
Settings::Settings() : user_file_(home_file()) {
  if (const char* names = of_process("ENVIGNORE")) ignore(names);
  if (const Setting* names = user_file_.find("ENVIGNORE")) ignore(names->value);
  system_file_ = read_settings(find("MARVOLENDIR").value + "/etc/marvolen.rc");
  if (const Setting* names = system_file_.find("ENVIGNORE")) ignore(names->value);
}

void Settings::ignore(std::string_view names) {
  while (!names.empty()) {
    const std::size_t end = std::min(names.find(','), names.size());
    if (const auto name = trimmed(names.substr(0, end)); !name.empty()) ignored_.emplace_back(name);
    names.remove_prefix(std::min(end + 1, names.size()));
  }
}

bool Settings::is_ignored(std::string_view name) const {
  return std::ranges::find(ignored_, name) != ignored_.end();
}

Found Settings::find(const std::string& name) const {
  const char* given = of_process(name.c_str());
  const bool ignored = given != nullptr && is_ignored(name);
  Found found;
  if (given != nullptr && !ignored) {
    found = {.source = Source::kProcess, .value = given};
  } else {
    found = in_file(user_file_, Source::kUserFile, name);
    if (found.source == Source::kNone) found = in_file(system_file_, Source::kSystemFile, name);
    if (found.source == Source::kNone) {
      if (auto value = fallback(name.c_str())) found = {Source::kFallback, std::move(*value)};
    }
  }
  found.ignored = ignored;
  return found;
}

const Settings& settings() {
  static const Settings the_settings;
  return the_settings;
}

std::optional<std::string> lookup(const char* name) {
  Found found = settings().find(name);
  if (found.source == Source::kNone) return std::nullopt;
  return std::move(found.value);
}

std::int64_t number(const char* name) {
  const KnownVariable& known = *known_variable(name);
  const auto within = [&](const std::string& text) {
    return common::number_within(text, known.low, known.high);
  };
  return within(lookup(name).value_or("")).value_or(within(known.fallback).value_or(known.low));
}

std::string fault_of(const KnownVariable& variable, const std::string& value) {
  if (variable.kind == Kind::kText) return {};
  if (variable.kind == Kind::kLeading) {
    char* end = nullptr;
    const long counts = ::strtol(value.c_str(), &end, 0);
    const bool is_number = end != value.c_str() && *end == '\0';
    return is_number ? "" : "not a number: " + std::to_string(counts) + " counts";
  }
  const auto number = common::number_within(value, variable.low, variable.high);
  if (number && (variable.kind == Kind::kDecimal || std::to_string(*number) == value)) return {};
  return "out of range " + std::to_string(variable.low) + " to " + std::to_string(variable.high) +
         ": " + (variable.fallback == nullptr ? "counts as not set" : variable.fallback) +
         (variable.fallback == nullptr ? "" : " counts");
}

long leading_number(const char* name) {
  const std::optional<std::string> text = lookup(name);
  return text ? ::strtol(text->c_str(), nullptr, 0) : 0;
}

}  // namespace environment
