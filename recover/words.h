// words: what the kinds of a thing are called, in tables.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace recover {

template <typename Kind>
struct Word {
  Kind kind;
  const char* text;
};

// Null for a kind that has no word.
template <typename Kind, std::size_t Size>
[[nodiscard]] const char* word_for(const std::array<Word<Kind>, Size>& words, Kind kind) {
  const auto* const found = std::ranges::find(words, kind, &Word<Kind>::kind);
  return found == words.end() ? nullptr : found->text;
}

// How many there are of each kind of a table, such as "3 added, 0 deleted".
template <typename Kind, std::size_t Size>
[[nodiscard]] std::string counts_text(const std::array<Word<Kind>, Size>& words,
                                      const std::map<Kind, std::int64_t>& counts) {
  std::string text;
  const char* separator = "";
  for (const Word<Kind>& word : words) {
    const auto found = counts.find(word.kind);
    const std::int64_t count = found == counts.end() ? 0 : found->second;
    text += std::exchange(separator, ", ") + std::to_string(count) + " " + word.text;
  }
  return text;
}

}  // namespace recover
