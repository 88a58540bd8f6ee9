// Reads a layout: one line after the other, then the fields against each other.
#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "layout/encoding.h"
#include "layout/layout.h"
#include "layout/words.h"

namespace layout {
namespace {

constexpr std::size_t kMostProblems = 20;
constexpr int kMostDecimals = 18;

struct TypeFacts {
  const char* name;
  int length;  // 0: any
};
constexpr std::array<TypeFacts, 7> kTypes = {{{"char", 0},
                                              {"int", 2},
                                              {"long", 4},
                                              {"float", 4},
                                              {"double", 8},
                                              {"locale", 0},
                                              {"bytes", 0}}};

std::optional<Type> type_of(std::string_view word) {
  for (std::size_t i = 0; i < kTypes.size(); ++i) {
    if (word == kTypes.at(i).name) return static_cast<Type>(i);
  }
  return {};
}

std::string folded(std::string name) {
  for (char& c : name) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return name;
}

bool is_name(std::string_view word) {
  const auto is_letter = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
  };
  return !word.empty() && is_letter(word.front()) && std::ranges::all_of(word, [&](char c) {
    return is_letter(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
  });
}

bool is_plain_text(const Field& field) {
  return is_text(field.type) && field.meaning == Meaning::kPlain;
}

std::string no_encoding(const std::string& name) {
  return quoted(name) + " is no encoding of one byte a character that this system knows";
}

// Those that a layout names, each looked up once.
class Encodings {
 public:
  // False where there is none of that name.
  bool give(const std::string& name, Field& field) {
    field.encoding.clear();
    field.characters = nullptr;
    if (is_utf8_name(name)) return true;
    const auto [at, is_new] = known_.try_emplace(name);
    if (is_new) at->second = Encoding::named(name);
    if (at->second == nullptr) return false;
    field.encoding = name;
    field.characters = at->second;
    return true;
  }

 private:
  std::map<std::string, std::shared_ptr<const Encoding>> known_;
};

// The words of one line. Each step takes some; `wrong` says what the first of them could not.
class Line {
 public:
  // `usual` has the encoding of texts that tell none.
  Line(std::vector<std::string> words, int next_offset, Encodings& encodings, const Field& usual)
      : words_(std::move(words)), next_offset_(next_offset), encodings_(encodings), usual_(usual) {}

  // The field; empty where something is wrong.
  std::optional<Field> read() {
    const bool all = take_name() && take_type() && take_place() && take_length() && take_options();
    if (!all) return {};
    return field_;
  }
  [[nodiscard]] const std::string& wrong() const { return wrong_; }

 private:
  [[nodiscard]] bool has_more() const { return at_ < words_.size(); }
  // The next word; empty behind the last.
  std::string take() { return has_more() ? words_[at_++] : std::string(); }
  bool refuse(std::string why) {
    wrong_ = std::move(why);
    return false;
  }

  bool take_name() {
    field_.name = take();
    return is_name(field_.name) ||
           refuse(quoted(field_.name) +
                  " is no name: letters, digits, \"_\", \"-\" and \".\" make "
                  "one, a letter comes first");
  }

  bool take_type() {
    const std::string word = take();
    const auto type = type_of(word);
    if (type) field_.type = *type;
    return type.has_value() ||
           refuse((word.empty() ? "the type is missing" : quoted(word) + " is no type") +
                  ": char, int, long, float, double, locale or bytes");
  }

  bool take_place() {
    const std::string word = take();
    if (word == "tail") {
      field_.is_tail = true;
      return length_of(field_.type) == 0 || refuse("a number cannot be the tail");
    }
    if (word == "next") {
      field_.offset = next_offset_;
      return next_offset_ >= 0 || refuse("nothing comes behind the tail");
    }
    const auto offset = number_in(word, 0, kGreatestRecord - 1);
    field_.offset = offset.value_or(0);
    return offset.has_value() ||
           refuse((word.empty() ? "the offset is missing" : quoted(word) + " is no offset") +
                  ": a number from 0, \"next\" or \"tail\"");
  }

  bool take_length() {
    if (field_.is_tail) return true;
    const int fixed = length_of(field_.type);
    field_.length = fixed;
    const auto length = has_more() ? number_in(words_[at_], 1, kGreatestRecord) : std::nullopt;
    if (length) {
      ++at_;
      field_.length = *length;
    }
    if (fixed != 0 && field_.length != fixed) {
      return refuse(std::string(name_of(field_.type)) + " has a length of " +
                    std::to_string(fixed));
    }
    if (field_.length == 0) return refuse("the length is missing, or is none");
    return field_.end() <= kGreatestRecord || refuse("no record is so long");
  }

  bool take_options() {
    while (has_more()) {
      const std::string word = take();
      const bool fits = word == "null"      ? take_null()
                        : word == "blanks"  ? take_blanks()
                        : word == "date"    ? take_date()
                        : word == "decimal" ? take_decimal()
                        : word == "boolean" ? take_boolean()
                        : word == "encoding"
                            ? take_encoding()
                            : refuse(quoted(word) +
                                     " is no option: null, blanks, date, decimal, boolean or "
                                     "encoding");
      if (!fits) return false;
    }
    if (encoding_.empty()) {
      if (is_plain_text(field_)) {
        field_.encoding = usual_.encoding;
        field_.characters = usual_.characters;
      }
      return true;
    }
    return is_plain_text(field_) || refuse("only a text that is nothing else has an encoding");
  }

  bool take_null() {
    return !std::exchange(field_.may_be_null, true) || refuse("\"null\" stands here twice");
  }
  bool take_blanks() {
    if (!is_text(field_.type)) return refuse("only texts have trailing blanks");
    return !std::exchange(field_.keeps_blanks, true) || refuse("\"blanks\" stands here twice");
  }

  bool take_encoding() {
    if (!encoding_.empty()) return refuse("\"encoding\" stands here twice");
    encoding_ = take();
    return encodings_.give(encoding_, field_) || refuse(no_encoding(encoding_));
  }

  bool take_meaning(Meaning meaning) {
    if (field_.is_tail) return refuse("the tail is plain text or bytes");
    return std::exchange(field_.meaning, meaning) == Meaning::kPlain ||
           refuse("a field is one of date, decimal and boolean");
  }

  bool take_date() {
    field_.form = take();
    if (field_.form == "since") {
      field_.form = take();
      if (!is_day(field_.form))
        return refuse(quoted(field_.form) + " is no day such as 1899-12-31");
      return take_meaning(Meaning::kDays) &&
             (is_whole_number(field_.type) || refuse("only int and long count days"));
    }
    if (!is_date_form(field_.form)) {
      return refuse(quoted(field_.form) + " is no form of a date such as YYYYMMDD, nor \"since\"");
    }
    if (field_.type == Type::kLong) {
      const bool has_digits_only = field_.form.find_first_not_of("YMD") == std::string::npos;
      return take_meaning(Meaning::kDate) &&
             (has_digits_only || refuse("a number has no room for what is between the digits"));
    }
    if (!is_text(field_.type)) return refuse("a date is kept in char, locale, int or long");
    return take_meaning(Meaning::kDate) &&
           (std::ssize(field_.form) <= field_.length ||
            refuse("a date of the form " + quoted(field_.form) + " is longer than the field"));
  }

  bool take_decimal() {
    const std::string word = take();
    const auto decimals = number_in(word, 1, kMostDecimals);
    if (!decimals) return refuse(quoted(word) + " is no number of decimals from 1 to 18");
    field_.decimals = *decimals;
    return take_meaning(Meaning::kDecimal) &&
           (is_whole_number(field_.type) || is_text(field_.type) ||
            refuse("decimals are kept in char, locale, int or long"));
  }

  bool take_boolean() {
    field_.yes = take();
    const bool has_both = has_more();
    field_.no = take();
    if (!has_both) return refuse("boolean takes two words: how true and how false are kept");
    if (field_.yes == field_.no) return refuse("true and false are kept alike");
    for (const std::string& word : {field_.yes, field_.no}) {
      const int most = field_.type == Type::kInt ? INT16_MAX : INT32_MAX;
      const bool fits = is_whole_number(field_.type)
                            ? number_in(word, -most, most).has_value()
                            : is_text(field_.type) && std::ssize(word) <= field_.length;
      if (!fits) return refuse(quoted(word) + " is no value of the field");
    }
    return take_meaning(Meaning::kBoolean);
  }

  std::vector<std::string> words_;
  int next_offset_;  // -1: behind the tail
  Encodings& encodings_;
  const Field& usual_;
  std::string encoding_;  // that the line tells
  std::size_t at_ = 0;
  Field field_;
  std::string wrong_;
};

class Reader {
 public:
  Reading read(std::string_view text) {
    if (text.size() > kGreatestText) {
      add(0, "a layout of more than 4 MiB");
      text = {};
    }
    for (int line = 1; !text.empty(); ++line) {
      const auto end = std::min(text.find('\n'), text.size());
      take_line(text.substr(0, end), line);
      text.remove_prefix(std::min(end + 1, text.size()));
      if (reading_.problems.size() >= kMostProblems) break;
    }
    if (reading_.fields.empty() && reading_.problems.empty()) add(0, "there is no field");
    find_overlaps();
    return std::move(reading_);
  }

 private:
  void add(int line, std::string text) {
    if (reading_.problems.size() < kMostProblems)
      reading_.problems.push_back({line, std::move(text)});
  }

  void take_line(std::string_view text, int line) {
    auto words = words_of(text);
    if (!words) return add(line, "a quote is missing");
    if (words->empty()) return;
    if (words->size() == 2 && words->front() == "encoding")
      return take_encoding(words->back(), line);
    Line reader{std::move(*words), next_, encodings_, default_};
    auto field = reader.read();
    if (!field) return add(line, reader.wrong());
    field->line = line;
    const auto [at, is_new] = names_.emplace(folded(field->name), line);
    if (!is_new) {
      return add(line, quoted(field->name) + " is the name of the field of line " +
                           std::to_string(at->second));
    }
    if (next_ < 0) return add(line, "nothing comes behind the tail");
    next_ = field->is_tail ? -1 : field->end();
    reading_.fields.push_back(std::move(*field));
  }

  // Of all plain texts of the lines behind.
  void take_encoding(const std::string& name, int line) {
    if (encodings_.give(name, default_)) return;
    add(line, no_encoding(name));
  }

  void find_overlaps() {
    std::vector<const Field*> sorted;
    for (const Field& field : reading_.fields) {
      if (!field.is_tail) sorted.push_back(&field);
    }
    std::ranges::stable_sort(sorted, {}, [](const Field* field) { return field->offset; });
    const Field* last = nullptr;  // that reaches farthest
    for (const Field* field : sorted) {
      if (last != nullptr && field->offset < last->end()) {
        const auto [first, second] = std::minmax(field->line, last->line);
        add(second, "shares bytes with the field of line " + std::to_string(first));
      }
      if (last == nullptr || field->end() > last->end()) last = field;
    }
  }

  Reading reading_;
  Encodings encodings_;
  Field default_;
  std::map<std::string, int> names_;
  int next_ = 0;
};

}  // namespace

const char* name_of(Type type) { return kTypes.at(static_cast<std::size_t>(type)).name; }

int length_of(Type type) { return kTypes.at(static_cast<std::size_t>(type)).length; }

Reading read(std::string_view text) { return Reader{}.read(text); }

std::vector<Problem> misfits(const Fields& fields, int record_length, bool has_tail) {
  std::vector<Problem> problems;
  for (const Field& field : fields) {
    if (problems.size() >= kMostProblems) break;
    if (field.is_tail && !has_tail) {
      problems.push_back({field.line, "the records have no tail"});
    } else if (!field.is_tail && field.end() > record_length) {
      problems.push_back({field.line, "ends at byte " + std::to_string(field.end()) +
                                          " of a record of " + std::to_string(record_length)});
    }
  }
  return problems;
}

std::string shown(const Problem& problem, std::string_view file) {
  std::string text(file);
  if (problem.line > 0) text += ':' + std::to_string(problem.line);
  return text + ": " + problem.text;
}

}  // namespace layout
