// words: a line of a recipe, taken word by word.
#pragma once

#include <charconv>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace testing_support {

class Words {
 public:
  explicit Words(const std::string& line) : line_(line) {
    std::istringstream from(line);
    for (std::string word; from >> word;) words_.push_back(word);
  }

  [[nodiscard]] bool empty() const { return next_ == words_.size(); }
  [[nodiscard]] std::vector<std::string> rest() {
    const auto begin = words_.begin() + static_cast<std::ptrdiff_t>(next_);
    next_ = words_.size();
    return {begin, words_.end()};
  }
  std::string take() {
    if (empty()) fail("a word is missing at the end");
    return words_[next_++];
  }
  // Whether `word` is next; it is taken then.
  bool take(std::string_view word) {
    if (empty() || words_[next_] != word) return false;
    ++next_;
    return true;
  }
  std::int64_t number() { return to_number(take()); }

  [[nodiscard]] std::int64_t to_number(std::string_view word) const {
    const bool negative = word.starts_with('-');
    std::string_view digits = word.substr(negative ? 1 : 0);
    const bool hex = digits.starts_with("0x");
    if (hex) digits.remove_prefix(2);
    std::int64_t value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
    if (error != std::errc() || end != digits.data() + digits.size()) {
      fail("no number: " + std::string(word));
    }
    return negative ? -value : value;
  }
  // "7", or "3-9" for several.
  [[nodiscard]] std::vector<int> to_numbers(const std::string& word) const {
    const std::size_t dash = word.find('-', 1);
    const auto first = static_cast<int>(to_number(word.substr(0, dash)));
    const auto last =
        dash == word.npos ? first : static_cast<int>(to_number(word.substr(dash + 1)));
    std::vector<int> all;
    for (int n = first; n <= last; ++n) all.push_back(n);
    return all;
  }

  [[noreturn]] void fail(const std::string& why) const {
    throw std::runtime_error("in \"" + line_ + "\": " + why);
  }

 private:
  std::string line_;
  std::vector<std::string> words_;
  std::size_t next_ = 0;
};

}  // namespace testing_support
