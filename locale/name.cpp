#include "locale/name.h"

#include <algorithm>

namespace locale {
namespace {

// Not those of <cctype>, which follow the process's locale.
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_alphanumeric(char c) { return is_digit(c) || (lower(c) >= 'a' && lower(c) <= 'z'); }

struct Parts {
  std::string_view language;  // with the territory
  std::string_view code_set;
  std::string_view modifier;
};

// The text before `mark`; `name` keeps what follows it.
std::string_view cut(std::string_view& name, char mark) {
  const std::size_t at = std::min(name.find(mark), name.size());
  const std::string_view before = name.substr(0, at);
  name.remove_prefix(std::min(at + 1, name.size()));
  return before;
}

Parts parts_of(std::string_view name) {
  std::string_view left = cut(name, '@');
  const std::string_view language = cut(left, '.');
  return {language, left, name};
}

bool is_plain(std::string_view text) {
  return std::ranges::all_of(text,
                             [](char c) { return is_alphanumeric(c) || c == '_' || c == '-'; });
}

// "UTF-8" becomes "utf8", "8859-1" becomes "iso88591".
std::string folded_code_set(std::string_view given) {
  std::string folded;
  std::ranges::copy_if(given, std::back_inserter(folded), is_alphanumeric);
  std::ranges::transform(folded, folded.begin(), lower);
  return !folded.empty() && std::ranges::all_of(folded, is_digit) ? "iso" + folded : folded;
}

void append(std::string& name, char mark, std::string_view part) {
  if (part.empty()) return;
  name += mark;
  name += part;
}

}  // namespace

std::string file_name(std::string_view name) {
  if (name.size() > 2 * kNameLimit) return {};  // no real name is folded to half its length
  std::string lowered{name};
  std::ranges::transform(lowered, lowered.begin(), lower);
  const Parts parts = parts_of(lowered);
  if (parts.language.empty() || !is_plain(parts.language) || !is_plain(parts.code_set) ||
      !is_plain(parts.modifier)) {
    return {};
  }
  std::string result{parts.language};
  append(result, '.', folded_code_set(parts.code_set));
  append(result, '@', parts.modifier);
  if (result == "posix") result = kByteOrder;
  return result.size() > kNameLimit ? std::string{} : result;
}

std::string system_name(std::string_view name) {
  const Parts parts = parts_of(name);
  std::string result{parts.language};
  // "C" as a whole, of other names the territory.
  const auto from = parts.language == kByteOrder ? result.begin() : std::ranges::find(result, '_');
  std::transform(from, result.end(), from, upper);
  // The C library looks for "UTF-8" under "utf8" too, but not the other way round.
  append(result, '.', parts.code_set == "utf8" ? "UTF-8" : parts.code_set);
  append(result, '@', parts.modifier);
  return result;
}

}  // namespace locale
