// words: the words of a line of a layout, and what numbers and dates they are.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace layout {

// Words between blanks, up to a comment. A word in double quotes may hold blanks and "#"; a quote
// in it is doubled. Nothing where a quote is missing.
[[nodiscard]] std::optional<std::vector<std::string>> words_of(std::string_view line);

// The word as words_of() gives it back, in quotes where it needs them.
[[nodiscard]] std::string as_word(const std::string& word);

// The word for an error, never too long and without unprintable bytes.
[[nodiscard]] std::string quoted(std::string_view word);

// A number of digits from `least` to `most`.
[[nodiscard]] std::optional<int> number_in(std::string_view word, int least, int most);

// Whether it is a day of the calendar such as 1899-12-31.
[[nodiscard]] bool is_day(std::string_view word);

// Whether it is a form of a date: YYYY or YY, MM and DD once each, and anything between but
// letters.
[[nodiscard]] bool is_date_form(std::string_view word);

}  // namespace layout
