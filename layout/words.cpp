#include "layout/words.h"

#include <array>
#include <charconv>

namespace layout {
namespace {

constexpr std::string_view kBlanks = " \t\r\v\f";

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Takes a word in quotes from the front of `line`, which begins behind the first quote.
std::optional<std::string> take_quoted(std::string_view& line) {
  std::string word;
  for (;;) {
    const auto quote = line.find('"');
    if (quote == line.npos) return {};
    word += line.substr(0, quote);
    line.remove_prefix(quote + 1);
    if (!line.starts_with('"')) return word;
    word += '"';
    line.remove_prefix(1);
  }
}

}  // namespace

std::optional<std::vector<std::string>> words_of(std::string_view line) {
  std::vector<std::string> words;
  for (;;) {
    const auto begin = line.find_first_not_of(kBlanks);
    if (begin == line.npos || line[begin] == '#') return words;
    line.remove_prefix(begin);
    if (line.starts_with('"')) {
      line.remove_prefix(1);
      auto word = take_quoted(line);
      if (!word) return {};
      words.push_back(std::move(*word));
    } else {
      const std::string_view word = line.substr(0, line.find_first_of(" \t\r\v\f#"));
      words.emplace_back(word);
      line.remove_prefix(word.size());
    }
  }
}

std::string as_word(const std::string& word) {
  if (!word.empty() && word.find_first_of(" \t\r\v\f#\"") == word.npos) return word;
  std::string text = "\"";
  for (const char c : word) text += c == '"' ? "\"\"" : std::string(1, c);
  return text + '"';
}

std::string quoted(std::string_view word) {
  constexpr std::size_t kMost = 40;
  std::string text = "\"";
  for (const char c : word.substr(0, kMost)) text += c >= ' ' && c <= '~' ? c : '?';
  return text + (word.size() > kMost ? "...\"" : "\"");
}

std::optional<int> number_in(std::string_view word, int least, int most) {
  int number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  const bool is_number = error == std::errc{} && end == word.data() + word.size();
  return is_number && number >= least && number <= most ? std::optional(number) : std::nullopt;
}

bool is_day(std::string_view word) {
  if (word.size() != 10 || word[4] != '-' || word[7] != '-') return false;
  const auto year = number_in(word.substr(0, 4), 1, 9999);
  const auto month = number_in(word.substr(5, 2), 1, 12);
  if (!year || !month) return false;
  constexpr std::array kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leaps = *year % 4 == 0 && (*year % 100 != 0 || *year % 400 == 0);
  const int days = kDays.at(static_cast<std::size_t>(*month - 1)) + (*month == 2 && leaps ? 1 : 0);
  return number_in(word.substr(8), 1, days).has_value();
}

bool is_date_form(std::string_view word) {
  int years = 0;
  int months = 0;
  int days = 0;
  while (!word.empty()) {
    const char first = word.front();
    const auto run = std::min(word.find_first_not_of(first), word.size());
    if (is_letter(first)) {
      if (first == 'Y' && (run == 4 || run == 2)) {
        ++years;
      } else if (first == 'M' && run == 2) {
        ++months;
      } else if (first == 'D' && run == 2) {
        ++days;
      } else {
        return false;
      }
    }
    word.remove_prefix(run);
  }
  return years == 1 && months == 1 && days == 1;
}

}  // namespace layout
